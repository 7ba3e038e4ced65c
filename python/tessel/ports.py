"""Free ports and groups that no other test of this machine takes."""

from __future__ import annotations

import os
import random
import socket

# Below the range from which the system takes ports by itself, so that no outgoing connection takes one.
PORT_FIRST, PORT_LAST = 20000, 32000
TRIES_MAX = 1000

_chooser = random.Random(os.urandom(16))


class PortLease:
    """A port number, free for TCP and UDP alike, that nobody else who asks here gets while the lease is held.

    The lease is a socket in the abstract namespace, bound to a name made of the number: one process can bind
    it, whoever it belongs to, and the system takes it back when that process ends. Nothing is left on a disk.
    """

    def __init__(self) -> None:
        for _ in range(TRIES_MAX):
            number = _chooser.randint(PORT_FIRST, PORT_LAST)
            lease = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            try:
                lease.bind(f"\0tessel-test-port-{number}")
                with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp, \
                        socket.socket(socket.AF_INET, socket.SOCK_STREAM) as tcp:
                    udp.bind(("", number))
                    tcp.bind(("", number))
            except OSError:
                lease.close()
                continue
            self.number = number
            self._lease = lease
            return
        raise OSError(f"no free port between {PORT_FIRST} and {PORT_LAST}")

    def release(self) -> None:
        self._lease.close()


def unlikely_group() -> str:
    """A multicast group of the private range that nobody else is likely to use."""
    return f"239.255.{_chooser.randint(1, 254)}.{_chooser.randint(1, 254)}"
