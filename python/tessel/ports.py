"""Free ports and groups that no other test of this machine takes."""

from __future__ import annotations

import os
import random
import socket
from typing import Optional

# Below the range from which the system takes ports by itself, so that no outgoing connection takes one.
PORT_FIRST, PORT_LAST = 20000, 32000
TRIES_MAX = 1000

_chooser = random.Random(os.urandom(16))


class PortLease:
    """A port number, free for TCP and UDP alike, that nobody else who asks here gets while the lease is held.

    The lease is a socket in the abstract namespace, bound to a name made of the number: one process can bind
    it, whoever it belongs to, and the system takes it back when that process ends. Nothing is left on a disk.
    Names and ports alike belong to a network namespace.
    """

    def __init__(self, number: Optional[int] = None) -> None:
        """Any free port, or that of this number: OSError when it is taken."""
        if number is not None:
            self._take(number)
            return
        for _ in range(TRIES_MAX):
            try:
                self._take(_chooser.randint(PORT_FIRST, PORT_LAST))
                return
            except OSError:
                continue
        raise OSError(f"no free port between {PORT_FIRST} and {PORT_LAST}")

    def _take(self, number: int) -> None:
        lease = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            lease.bind(lease_name(number))
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp, \
                    socket.socket(socket.AF_INET, socket.SOCK_STREAM) as tcp:
                udp.bind(("", number))
                tcp.bind(("", number))
        except OSError:
            lease.close()
            raise
        self.number = number
        self._lease = lease

    def release(self) -> None:
        self._lease.close()


def lease_name(number: int) -> str:
    return f"\0tessel-test-port-{number}"


def unlikely_group() -> str:
    """A multicast group of the private range that nobody else is likely to use."""
    return f"239.255.{_chooser.randint(1, 254)}.{_chooser.randint(1, 254)}"
