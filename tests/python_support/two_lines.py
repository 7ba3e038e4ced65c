"""One feed on two lines: each loses, delays and packs on its own.

    with TwoLines(feed, loss=0.05) as lines:
        receiver = Process([program("tessel-listen"), *lines.receiver_args(), ...])
"""

import heapq
import random
import select
import socket
import struct
import threading
import time

from feed import free_port, unique_group, wait_until
from mold import HEADER, enlarge_receive_buffer


class Line:
    """What one line does to the packets that it carries."""

    def __init__(self, name, seed, loss, delay_seconds, most_messages):
        self.name = name
        self.group, self.port = unique_group(), free_port()
        self.random = random.Random(seed)
        self.loss, self.delay, self.most = loss, delay_seconds, most_messages
        self.dark = False
        self.sent = set()     # numbers
        self.next_number = 0  # of the last heartbeat sent
        self.due = []
        self.last_due = 0.0

    def option(self):
        return ["--line", f"{self.name}={self.group}:{self.port}@127.0.0.1"]

    def packets(self, packet):
        """The packet in packets of at most `most` messages each."""
        session, first, count = HEADER.unpack_from(packet)
        if count == 0:
            yield first, 0, packet
        offset = HEADER.size
        while count:
            taken, begin = min(count, self.most), offset
            for _ in range(taken):
                offset += 2 + struct.unpack_from("!H", packet, offset)[0]
            yield first, taken, HEADER.pack(session, first, taken) + packet[begin:offset]
            first, count = first + taken, count - taken

    def take(self, packet, now):
        for first, count, data in self.packets(packet):
            lost = count and self.random.random() < self.loss
            # In order: what is late makes what follows late.
            self.last_due = max(self.last_due, now + self.random.uniform(*self.delay))
            if not lost and not self.dark:
                heapq.heappush(self.due, (self.last_due, first, count, data))


class TwoLines:
    """Joins the feed's group and sends what comes to the lines' groups."""

    def __init__(self, feed, loss=0.0, delays=((0.0002, 0.002), (0.0002, 0.002)), packing=(1000, 4)):
        self.lines = [Line(name, 10 + at, loss, delays[at], packing[at]) for at, name in enumerate("AB")]
        self._in = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        enlarge_receive_buffer(self._in)
        self._in.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._in.bind((feed.group, feed.port))
        self._in.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(feed.group) + socket.inet_aton("127.0.0.1"))
        self._out = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._out.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))
        self._ends = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def receiver_args(self):
        return [word for line in self.lines for word in line.option()]

    def _run(self):
        while not self._ends.is_set() or any(line.due for line in self.lines):
            now = time.monotonic()
            due = [line.due[0][0] for line in self.lines if line.due]
            wait = max(0.0, min(due, default=now + 0.05) - now)
            if select.select([self._in], [], [], wait)[0]:
                packet = self._in.recv(2048)
                for line in self.lines:
                    line.take(packet, time.monotonic())
            now = time.monotonic()
            for line in self.lines:
                while line.due and line.due[0][0] <= now:
                    _, first, count, data = heapq.heappop(line.due)
                    self._out.sendto(data, (line.group, line.port))
                    line.sent.update(range(first, first + count))
                    if count == 0:
                        line.next_number = first

    def wait_for_heartbeat(self, next_number):
        """Waits until every line that is not dark has said that this number would be next."""
        wait_until(lambda: all(line.dark or line.next_number == next_number for line in self.lines),
                   what="the heartbeat on both lines")

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._ends.set()
        self._thread.join()
        self._in.close()
        self._out.close()
