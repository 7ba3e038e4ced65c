"""One run of the feed taken from the wire, and read by others: Wireshark's own MoldUDP64 and SoupBinTCP
dissectors, the project's dissector, the listener and the judge."""

import json
import socket
import struct
import subprocess

import pytest

from capture import (Capture, listen_to_capture, read_fields, read_messages, run_tshark, shown_by_listener,
                     soup_packet)
from feed import Feed, program
from time_scale import scaled

# Everything that can happen, often, with no fault injected.
SCENARIO = ("name=capture,halt_after=1,halt_secs=1,pause_after=1,pause_secs=1,trf_every=3,cancel_every=7,"
            "correct_every=5,asof_every=9,odd_lot_every=3")
SYMBOLS = "AAPL:190.00,MSFT:410.00,BRKA:700.00,LONGSYMBOLS:25.00,PENNY:0.03"
USER = "LATE"


def receive_exactly(connection, count):
    data = b""
    while len(data) < count:
        piece = connection.recv(count - len(data))
        assert piece, "the feed closed the session"
        data += piece
    return data


def log_in(connection, session):
    """Logs in and reads the spin to its end. Returns the messages in it."""
    connection.sendall(soup_packet("L", USER.encode().ljust(6) + b"".ljust(10) +
                                   session.encode().ljust(10) + b"1".rjust(20)))
    messages = []
    while not messages or messages[-1][1:3] != b"AS":
        length, = struct.unpack(">H", receive_exactly(connection, 2))
        packet = receive_exactly(connection, length)
        if packet[:1] == b"S":
            messages.append(packet[1:])
    return messages


def stir(feed):
    """Makes happen what no scenario does."""
    for command in ("wipeout K", "close MSFT", "asof AAPL", "band MSFT", "trf 2", "mwcb 1", "mark stirred"):
        assert feed.control(command).startswith("ok"), command


def wait_for_heartbeat(feed):
    """Waits until the feed, which is paused, has been silent for long enough to send one."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as listener:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((feed.group, feed.port))
        listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(feed.group) + socket.inet_aton(feed.iface))
        listener.settimeout(scaled(60))
        while listener.recv(2048)[18:] != b"\0\0":
            pass


class Run:
    """What the tests look at: the capture, and what the feed said about itself."""

    def __init__(self, folder):
        self.path = folder / "run.pcap"
        self.feed = Feed(folder, scenario=SCENARIO, symbols=SYMBOLS, interval_ms=20)
        feed = self.feed
        with Capture(self.path, f"udp port {feed.port} or tcp port {feed.snapshot_port}") as capture:
            with feed:
                feed.wait_for_messages(1500)
                with socket.create_connection(("127.0.0.1", feed.snapshot_port), 30) as connection:
                    connection.settimeout(scaled(60))
                    self.first_spin = log_in(connection, feed.session)
                    stir(feed)
                    self.second_spin = log_in(connection, feed.session)
                    connection.sendall(soup_packet("O"))
                    assert connection.recv(1) in (b"", b"\0"), "bytes after a logout"
                feed.wait_for_messages(feed.next_seq() + 500)
                feed.control("pause")
                self.next_sequence = feed.next_seq()
                wait_for_heartbeat(feed)
            self.truth = feed.truth()
            self.summary = capture.stop()
        self.mold = ("-d", f"udp.port=={feed.port},moldudp64", "-Y", f"udp.port == {feed.port}")
        self.soup = ("-d", f"tcp.port=={feed.snapshot_port},soupbintcp")
        self.own = ("-o", f"tessel.udp_ports:{feed.port}", "-o", f"tessel.tcp_ports:{feed.snapshot_port}")


@pytest.fixture(scope="module")
def run(tmp_path_factory):
    try:
        return Run(tmp_path_factory.mktemp("capture"))
    except PermissionError as refusal:
        pytest.skip(f"capturing on the loopback interface is not permitted here: {refusal}")


def test_mold_dissector_sees_every_sequence_number_once_and_nothing_malformed(run):
    rows = read_fields(run.path, ["moldudp64.sequence", "moldudp64.count", "moldudp64.msgseq",
                                  "moldudp64.session",
                                  "udp.length"], *run.mold, dissector=False)
    expected = 1
    for (sequence,), (count,), numbers, session, (length,) in rows:
        assert session == [run.feed.session]
        assert int(sequence) == expected
        assert len(numbers) == int(count)
        assert [int(number) for number in numbers] == list(range(expected, expected + int(count)))
        assert int(length) <= 8 + 1500
        expected += int(count)
    assert expected >= run.next_sequence > 2000
    assert sum(1 for row in rows if row[1] == ["0"]) >= 1, "no heartbeat in the capture"
    bad = ("_ws.malformed || moldudp64.msglen.invalid || moldudp64.count.invalid || "
           "moldudp64.end_of_session_extra")
    assert run_tshark("-r", run.path, *run.mold[:2], "-Y", bad, dissector=False) == ""


def test_soup_dissector_reads_the_session_without_a_malformed_packet(run):
    rows = read_fields(run.path, ["soupbintcp.packet_type", "soupbintcp.packet_length", "soupbintcp.username",
                                  "soupbintcp.session"], *run.soup, "-Y", "soupbintcp", dissector=False)
    types = [letter.strip("'") for row in rows for letter in row[0]]
    lengths = [int(length) for row in rows for length in row[1]]
    packets = [packet for packet in zip(types, lengths) if packet[0] not in "HR"]
    spins = [[("S", 1 + len(message)) for message in spin] for spin in (run.first_spin, run.second_spin)]
    assert packets == [("L", 47), ("A", 31)] + spins[0] + [("L", 47), ("A", 31)] + spins[1] + [("O", 1)]
    assert {name.strip() for row in rows for name in row[2]} == {USER}
    assert {name for row in rows for name in row[3]} == {run.feed.session}
    # The feed pads the number in Login Accepted on the right, where that dissector wants its blanks on the
    # left; it says so of these two packets, and there is nothing else to say of any.
    padded = "(soupbintcp.req_seq_num.invalid || soupbintcp.next_seq_num.invalid)"
    noted = read_fields(run.path, ["soupbintcp.packet_type"], *run.soup, "-Y", padded, dissector=False)
    assert [row[0][0].strip("'") for row in noted] == ["A", "A"]
    assert run_tshark("-r", run.path, *run.soup, "-Y", f"_ws.malformed && !{padded}", dissector=False) == ""


def test_own_dissector_and_listener_agree_field_by_field(run):
    feed = run.feed
    shown = read_messages(run.path, *run.own)
    lines = listen_to_capture(run.path, "--decode", *feed.receiver_args(), *feed.snapshot_args(USER)[:2])
    decoded = [shown_by_listener(line) for line in lines]
    numbered = [message for message in shown if message[0][0] == "seq"]
    spin = [message for message in shown if message[0][0] != "seq"]
    assert len(spin) == len(run.first_spin) + len(run.second_spin)
    assert len(numbered) >= run.next_sequence - 1
    # The listener may write a spin's messages before or between the numbered ones; each stream keeps its
    # order.
    from_feed, from_spin, expected = [], [], 1
    for message in decoded:
        if message[0] == ("seq", str(expected)) and dict(message)["kind"] != "end_of_snapshot":
            from_feed.append(message)
            expected += 1
        else:
            from_spin.append(message[1:])
    assert from_feed == numbered
    assert from_spin == spin
    kinds = {dict(message)["kind"] for message in shown}
    assert kinds >= {"start_of_day", "session_open", "wipe_out", "decline_levels", "directory_short",
                     "directory_long",
                     "indicator", "trading_action", "price_band", "collar", "mwcb_status", "end_of_snapshot",
                     "quote_short",
                     "quote_long", "mpid_quote", "trade_short", "trade_long", "cancel_error", "correction",
                     "as_of"}


def test_own_dissector_finds_nothing_wrong(run):
    assert run_tshark("-r", run.path, *run.own, "-Y",
                      "_ws.malformed || tessel.wrong_length || tessel.unknown_kind || "
                      "tessel.cut_block || tessel.short_packet") == ""


def test_filter_finds_the_trades_of_one_symbol(run):
    """Filters pick packets; the messages in them are then looked through."""
    wanted = sum(1 for line in run.truth if line.get("symbol") == "MSFT" and "trade" in line)
    messages = read_messages(run.path, *run.own, "-Y",
                             'tessel.symbol == "MSFT" && tessel.kind == "trade_short"')
    found = [dict(message) for message in messages]
    assert sum(1 for one in found if one["symbol"] == "MSFT" and one["kind"] == "trade_short") == wanted > 0


def test_judge_finds_the_captured_run_to_be_the_truth(run, tmp_path):
    output = tmp_path / "heard.jsonl"
    output.write_text("\n".join(listen_to_capture(run.path, *run.feed.receiver_args())) + "\n")
    done = subprocess.run([program("tessel-judge"), run.feed.truth_path, output], capture_output=True,
                          text=True,
                          timeout=scaled(120), check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    assert json.loads(output.read_text().splitlines()[0])["seq"] == run.truth[0]["seq"]
