"""Captures: writes pcap files by hand, takes them from the wire, and reads what tshark makes of them."""

import json
import os
import signal
import socket
import struct
import subprocess
import time
import xml.etree.ElementTree as ElementTree
from pathlib import Path

from feed import Process, free_port, program, wait_until
from time_scale import scaled

SOURCE = Path(os.environ.get("TESSEL_SOURCE") or Path(__file__).resolve().parents[2])
DISSECTOR = SOURCE / "tools" / "wireshark" / "tessel.lua"

ETHERNET = 1


def _ipv4(protocol, payload, source, destination):
    header = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), 0, 0, 1, protocol, 0,
                         bytes(map(int, source.split("."))), bytes(map(int, destination.split("."))))
    total = sum(struct.unpack(">10H", header))
    while total >> 16:
        total = (total & 0xffff) + (total >> 16)
    header = header[:10] + struct.pack(">H", ~total & 0xffff) + header[12:]
    return bytes(12) + b"\x08\x00" + header + payload


def udp_frame(payload, port, source_port=40000, destination="239.255.25.177"):
    """An Ethernet frame with one datagram; no UDP checksum, as the protocol allows."""
    datagram = struct.pack(">HHHH", source_port, port, 8 + len(payload), 0) + payload
    return _ipv4(17, datagram, "127.0.0.1", destination)


class TcpConversation:
    """The frames of one TCP connection: a handshake, then segments in both directions."""

    def __init__(self, port, client_port=40001):
        self.ports = (client_port, port)
        self.numbers = [1000, 5000]
        self.frames = []
        self._segment(0, b"", 0x02)
        self._segment(1, b"", 0x12)
        self._segment(0, b"", 0x10)

    def client(self, payload):
        self._segment(0, payload, 0x18)

    def server(self, payload):
        self._segment(1, payload, 0x18)

    def _segment(self, side, payload, flags):
        other = 1 - side
        header = struct.pack(">HHIIBBHHH", self.ports[side], self.ports[other], self.numbers[side],
                             self.numbers[other] if flags != 0x02 else 0, 5 << 4, flags, 65535, 0, 0)
        self.numbers[side] += len(payload) + (1 if flags & 0x02 else 0)
        self.frames.append(_ipv4(6, header + payload, "127.0.0.1", "127.0.0.1"))


def write_pcap(path, frames):
    """A capture file with the frames, a millisecond apart."""
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 262144, ETHERNET))
        for index, frame in enumerate(frames):
            file.write(struct.pack("<IIII", 1_700_000_000, index * 1000, len(frame), len(frame)) + frame)
    return path


def mold_packet(sequence, messages, session="UTPBENCH01"):
    blocks = b"".join(struct.pack(">H", len(message)) + message for message in messages)
    return session.encode().ljust(10) + struct.pack(">QH", sequence, len(messages)) + blocks


def soup_packet(letter, payload=b""):
    return struct.pack(">H", 1 + len(payload)) + letter.encode() + payload


def run_tshark(*args, dissector=True, seconds=240):
    """tshark's standard output. A script error or a refused option fails."""
    script = ["-X", f"lua_script:{DISSECTOR}"] if dissector else []
    done = subprocess.run(["tshark", *script, *map(str, args)], capture_output=True, text=True,
                          errors="replace", timeout=scaled(seconds),
                          check=False, env={**os.environ, "TZ": "UTC", "LC_ALL": "C"})
    assert done.returncode == 0, done.stderr
    assert "Lua" not in done.stderr and "Lua Error" not in done.stdout, done.stderr
    return done.stdout


def read_fields(path, names, *args, dissector=True):
    """One row a packet: the texts of the named fields, a list for each, since a packet may have one often."""
    wanted = [word for name in names for word in ("-e", name)]
    text = run_tshark("-r", path, *args, "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=|", "-E",
                      "separator=/t", *wanted, dissector=dissector)
    return [[column.split("|") if column else [] for column in line.split("\t")]
            for line in text.splitlines()]


def read_messages(path, *args):
    """The messages of a capture, in order: each a list of (field, shown text) in the tree's order, the fields
    without their "tessel." in front."""
    text = run_tshark("-r", path, *args, "-T", "pdml")
    messages = []
    for proto in ElementTree.fromstring(text).iter("proto"):
        if proto.get("name") == "tessel_message":
            messages.append([(field.get("name")[len("tessel."):], field.get("show"))
                             for field in proto.iter("field")
                             if field.get("name").startswith("tessel.")])
    return messages


# How the names of tessel-listen's objects continue in the dissector's field names.
NESTED = {"nbbo": "nbbo_", "best_odd_lot": "best_odd_lot_", "odd_lots": "odd_lot_", "corrected": "corrected_",
          "consolidated": "consolidated_", "participant": "participant_"}
PRICES = {"bid", "ask", "price", "high", "low", "last", "level_1", "level_2", "level_3", "lower", "upper",
          "reference"}
TRADE_KINDS = {"trade_short", "trade_long", "cancel_error", "correction", "as_of"}


def _shown_time(nanoseconds):
    """A time as Wireshark shows it in UTC."""
    seconds, rest = divmod(nanoseconds, 1_000_000_000)
    moment = time.gmtime(seconds)
    day = f"{time.strftime('%b', moment)} {moment.tm_mday:2d}"
    return f"{day}, {time.strftime('%Y %H:%M:%S', moment)}.{rest:09d} UTC"


def _shown_members(members, prefix, in_trade):
    for name, value in members.items():
        if isinstance(value, list):
            for entry in value:
                yield from _shown_members(entry, NESTED[name], in_trade)
        elif isinstance(value, dict):
            yield from _shown_members(value, NESTED[name], in_trade)
        elif name.endswith("_time_ns"):
            yield prefix + name[:-len("_ns")], _shown_time(value)
        elif name in PRICES or (in_trade and name in ("size", "volume")):
            yield prefix + name, f"{value / 1_000_000:.15g}"
        else:
            yield prefix + name, str(value)


def shown_by_listener(line):
    """One line of tessel-listen --decode as `read_messages` shows the same message."""
    members = json.loads(line)
    return list(_shown_members(members, "", members["kind"] in TRADE_KINDS))


def listen_to_capture(path, *args):
    """The lines that tessel-listen writes about a capture."""
    done = subprocess.run([program("tessel-listen"), "--from-pcap", str(path), "--out", "-", *map(str, args)],
                          capture_output=True, text=True, timeout=scaled(240), check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout.splitlines()


class Capture:
    """tshark writing what passes on the loopback interface to a file, from when `start` returns until `stop`.

    `start` sends datagrams to another port, which the filter passes too, until the first is in the
    file: only then is it certain that nothing that follows is missed."""

    def __init__(self, path, capture_filter, seconds=60):
        self.path = path
        self.filter = capture_filter
        self.seconds = seconds
        self.child = None

    def start(self):
        probe = free_port()
        self.child = Process(["tshark", "-i", "lo", "-F", "pcap", "-B", "64", "-f",
                              f"({self.filter}) or udp port {probe}", "-w", self.path])
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            def seen():
                if not self.child.running():
                    reason = " ".join(self.child.stderr)
                    if "permission" in reason.lower():
                        raise PermissionError(reason)
                    raise AssertionError("tshark ended: " + reason)
                sender.sendto(b"probe", ("127.0.0.1", probe))
                return self.path.exists() and self.path.stat().st_size > 24
            wait_until(seen, self.seconds, "tshark to capture")
        return self

    def stop(self):
        """Ends the capture once the file has stopped growing, so that what was on the wire is in it."""
        size, since = -1, time.monotonic()
        while time.monotonic() - since < 1:
            if self.path.stat().st_size != size:
                size, since = self.path.stat().st_size, time.monotonic()
            time.sleep(0.05)
        self.child.stop(signal.SIGINT)
        return "\n".join(self.child.stderr)

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        if self.child is not None:
            self.child.kill()
