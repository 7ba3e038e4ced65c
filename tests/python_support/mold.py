"""Receives a feed's multicast packets and asks its retransmission service, in plain Python.

    with Listener(feed) as listener:        # before feed.start(), to receive the first packet
        with feed:
            ...
    messages, heartbeats = listener.messages(), listener.heartbeats()

    with Requester(feed) as requester:
        messages = requester.fetch(1, 5000)  # {sequence number: bytes}
"""

import select
import socket
import struct
import threading
import time

from time_scale import scaled

HEADER = struct.Struct(">10sQH")
SO_RCVBUFFORCE = 33
SO_TIMESTAMPNS = 35
RECEIVE_BUFFER_BYTES = 64 * 1024 * 1024


def enlarge_receive_buffer(sock, size=RECEIVE_BUFFER_BYTES):
    """Asks for a large receive buffer, by privilege if there is one, and returns what was granted."""
    try:
        sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, size)
    except OSError:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, size)
    return sock.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF)


def split_packet(packet):
    """(session, sequence number, list of messages) of a downstream packet, every byte of it in a block."""
    assert 20 <= len(packet) <= 1500, f"a packet of {len(packet)} bytes"
    session, sequence, count = HEADER.unpack_from(packet)
    messages = []
    at = HEADER.size
    for _ in range(count):
        (length,) = struct.unpack_from(">H", packet, at)
        at += 2
        assert at + length <= len(packet), "a block goes over the packet's end"
        messages.append(packet[at:at + length])
        at += length
    assert at == len(packet), "bytes after the last block"
    return session, sequence, messages


def is_heartbeat(packet):
    return packet[18:20] == b"\0\0"


def add_packet(messages, packet):
    """Enters a packet's messages under their numbers. The same number must always bring the same bytes."""
    _, first, blocks = split_packet(packet)
    for offset, block in enumerate(blocks):
        known = messages.setdefault(first + offset, block)
        assert known == block, f"message {first + offset} came with two contents"


class Listener:
    """Collects every packet of a feed's multicast group in a thread, with the kernel's time of arrival."""

    def __init__(self, feed):
        self._packets = []
        self._lock = threading.Lock()
        self._ending = threading.Event()
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        enlarge_receive_buffer(self._socket)
        self._socket.bind((feed.group, feed.port))
        self._socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                                socket.inet_aton(feed.group) + socket.inet_aton(feed.iface))
        self._socket.settimeout(0.1)
        self._thread = threading.Thread(target=self._collect, daemon=True)
        self._thread.start()

    def _collect(self):
        while not self._ending.is_set():
            try:
                packet, extra, _, _ = self._socket.recvmsg(2048, 256)
            except socket.timeout:
                continue
            seconds, nanoseconds = struct.unpack("qq", extra[0][2][:16])
            with self._lock:
                self._packets.append((seconds + nanoseconds * 1e-9, packet))

    def packets(self):
        """(time in seconds, bytes) of every packet so far, in order of arrival."""
        with self._lock:
            return list(self._packets)

    def data(self):
        """The packets that carry messages: (time, first sequence number, messages)."""
        return [(when, *split_packet(packet)[1:])
                for when, packet in self.packets() if not is_heartbeat(packet)]

    def heartbeats(self):
        """(time, next sequence number) of each heartbeat."""
        return [(when, split_packet(packet)[1]) for when, packet in self.packets() if is_heartbeat(packet)]

    def messages(self):
        """{sequence number: bytes} of everything received."""
        found = {}
        for _, packet in self.packets():
            add_packet(found, packet)
        return found

    def close(self):
        self._ending.set()
        self._thread.join()
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Requester:
    """Asks a feed's retransmission service."""

    def __init__(self, feed, session=None):
        self.session = (session if session is not None else feed.session.encode())[:10].ljust(10)
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.buffer_bytes = enlarge_receive_buffer(self._socket)
        self._address = ("127.0.0.1", feed.retrans_port)
        self.requests = 0

    def send(self, sequence, count):
        self.send_bytes(HEADER.pack(self.session, sequence, count))

    def send_bytes(self, data):
        self.requests += 1
        self._socket.sendto(data, self._address)

    def receive(self, seconds):
        """One reply packet, or None when none comes in that time."""
        ready, _, _ = select.select([self._socket], [], [], seconds)
        if not ready:
            return None
        packet, sender = self._socket.recvfrom(2048)
        assert sender == self._address, "replies come from the retransmission port"
        return packet

    def ask(self, sequence, count, expected_last, quiet_seconds=3.0):
        """Sends one request and collects replies until the one with message `expected_last` has come or
        nothing comes for quiet_seconds. Returns the packets."""
        self.send(sequence, count)
        packets = []
        while True:
            packet = self.receive(quiet_seconds)
            if packet is None:
                return packets
            packets.append(packet)
            _, first, messages = split_packet(packet)
            if first + len(messages) > expected_last:
                return packets

    def fetch(self, first, last, messages=None, seconds=60):
        """Adds to `messages` what it does not hold yet from first to last; asks until all is there."""
        messages = {} if messages is None else messages
        begin = time.monotonic()
        while True:
            missing = gaps(messages, first, last)
            if not missing:
                return messages
            assert time.monotonic() - begin < scaled(seconds), f"still missing: {missing[:5]} and more"
            for gap_first, gap_last in missing:
                for start in range(gap_first, gap_last + 1, 65535):
                    stop = min(start + 65534, gap_last)
                    for packet in self.ask(start, stop - start + 1, stop):
                        add_packet(messages, packet)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._socket.close()


def gaps(messages, first, last):
    """The runs of numbers from first to last that messages does not hold, as (first, last) pairs."""
    found = []
    for sequence in range(first, last + 1):
        if sequence in messages:
            continue
        if found and found[-1][1] == sequence - 1:
            found[-1] = (found[-1][0], sequence)
        else:
            found.append((sequence, sequence))
    return found
