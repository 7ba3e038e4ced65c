"""A SoupBinTCP client for the Snap-Shot service, in plain Python: shares nothing with the program.

    with SoupClient(feed.snapshot_port) as client:
        client.send(login_request("LATE"))
        accepted, messages = client.read_spin()      # the last message is the end of snapshot

Messages are bytes; letters(message) gives category, type, market center and sub-market center.
"""

import socket
import struct
import time

from time_scale import scaled

READ_SECONDS = 60


def packet(kind, payload=b""):
    """One packet: length (counting the type), type, payload."""
    return struct.pack(">H", 1 + len(payload)) + kind.encode("latin-1") + payload


def login_request(user="LATE", session="", sequence="", password="any"):
    fields = ((user, 6), (password, 10), (session, 10), (sequence, 20))
    return packet("L", b"".join(text.encode().ljust(width)[:width] for text, width in fields))


def letters(message):
    return message[1:5].decode("latin-1")


def end_of_snapshot(message):
    """The sequence number in an end-of-snapshot message."""
    assert letters(message) == "ASE " and len(message) == 37, message
    return struct.unpack_from(">Q", message, 29)[0]


class SoupClient:
    """One connection. receive_buffer: a size for SO_RCVBUF, set before connecting so that it bounds the
    window."""

    def __init__(self, port, receive_buffer=None):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if receive_buffer is not None:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(scaled(READ_SECONDS))
        self.socket.connect(("127.0.0.1", port))
        self._buffer = bytearray()
        self._at = 0

    def send(self, data):
        self.socket.sendall(data)

    def read_packet(self):
        """(type, payload) of the next packet; None when the server has closed the connection."""
        while True:
            held = len(self._buffer) - self._at
            if held >= 2:
                (length,) = struct.unpack_from(">H", self._buffer, self._at)
                assert length > 0, "a packet of length 0 from the server"
                if held >= 2 + length:
                    start = self._at + 2
                    self._at = start + length
                    return chr(self._buffer[start]), bytes(self._buffer[start + 1:self._at])
            del self._buffer[:self._at]
            self._at = 0
            try:
                data = self.socket.recv(262144)
            except ConnectionResetError:
                data = b""
            if not data:
                assert not self._buffer, f"the stream ends within a packet: {bytes(self._buffer[:40])!r}"
                return None
            self._buffer += data

    def read_spin(self):
        """(payload of Login Accepted, list of messages), heartbeats left out; the last message ends the
        snapshot."""
        accepted = None
        messages = []
        while True:
            kind, payload = self.read_packet()
            if kind == "A":
                accepted = payload
            elif kind == "S":
                messages.append(payload)
                if letters(payload) == "ASE ":
                    return accepted, messages
            else:
                assert kind == "H", f"a packet of type {kind!r} within the spin"

    def log_in(self, user="LATE", session="", sequence=""):
        self.send(login_request(user, session, sequence))
        return self.read_spin()

    def wait_for_end(self, seconds=READ_SECONDS):
        """Reads and forgets until the server closes the connection; the number of packets before that."""
        begin = time.monotonic()
        count = 0
        while self.read_packet() is not None:
            count += 1
            assert time.monotonic() - begin < scaled(seconds), "the connection is still open"
        return count

    def reset(self):
        """Ends the connection by a reset instead of an orderly end."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
