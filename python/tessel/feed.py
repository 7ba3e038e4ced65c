"""The feed as a fixture."""

from __future__ import annotations

import os
import re
import shutil
import socket
import struct
import tempfile
import time
from pathlib import Path
from types import TracebackType
from typing import Optional, Sequence, Type, Union

from tessel.ports import PortLease, unlikely_group
from tessel.process import Process, StartError, program, time_scale, wait_until

START_SECONDS = 30.0
REPLY_SECONDS = 10.0
HEARTBEAT = struct.Struct("!10sQH")  # session, next sequence number, a count of 0


def numbers_of_stats(reply: str) -> dict[str, int]:
    """The reply to "stats" as numbers: every counter by name, next_seq, and the four fault counts."""
    numbers = {key: int(value) for key, value in re.findall(r"(\w+)=(\d+)", reply)}
    faults = reply.partition("tessel faults:")[2]
    numbers.update({key: int(value) for key, value in re.findall(r"(\w+) (\d+)", faults)})
    return numbers


class Feed:
    """One run of the feed, on free ports and a private group. It runs when the constructor returns.

    symbols, interval_ms, seed    the options of those names, when not None
    scenario    the text of TESSEL_SCENARIO
    options     further command-line options; they come last, so they win
    folder      where its files go; a temporary folder, removed by close(), when None

    group, port, iface, session, retrans, snapshot, control    its addresses; the last three are "HOST:PORT"
    truth       the path of its truth log

    A feed that does not start raises StartError with its words. It ends with close(), with the `with` block,
    and with the interpreter.
    """

    def __init__(self, symbols: Optional[str] = None, interval_ms: Optional[int] = None,
                 seed: Optional[int] = None, scenario: Optional[str] = None, options: Sequence[object] = (),
                 folder: Union[str, "os.PathLike[str]", None] = None) -> None:
        self._own_folder = folder is None
        self.folder = Path(tempfile.mkdtemp(prefix="tessel-")) if folder is None else Path(folder)
        self._leases = [PortLease() for _ in range(4)]
        self.group = unlikely_group()
        self.iface = "127.0.0.1"
        self.session = "UTPBENCH01"
        self.port, retrans, snapshot, control = (lease.number for lease in self._leases)
        self.retrans = f"127.0.0.1:{retrans}"
        self.snapshot = f"127.0.0.1:{snapshot}"
        self.control = f"127.0.0.1:{control}"
        self.truth = self.folder / "truth.jsonl"
        words = [program("tessel"), "--mcast", self.group, "--port", self.port, "--iface", self.iface,
                 "--retrans-port", retrans, "--snapshot-port", snapshot, "--control-port", control,
                 "--session", self.session, "--truth-out", self.truth]
        for option, value in (("--symbols", symbols), ("--interval-ms", interval_ms), ("--seed", seed)):
            if value is not None:
                words += [option, value]
        words += options
        environment = {key: value for key, value in os.environ.items() if key != "TESSEL_SCENARIO"}
        if scenario is not None:
            environment["TESSEL_SCENARIO"] = scenario
        self.process = Process([str(word) for word in words], env=environment)
        try:
            self.process.wait_for_line(r"^\[tessel\] UQDF\+UTDF ", START_SECONDS)
        except StartError:
            self.close()
            raise
        self._take_addresses([str(word) for word in options])

    def _take_addresses(self, options: Sequence[str]) -> None:
        """Options of the caller win, so they are what a handler must be given, too."""
        for option, value in zip(options, options[1:]):
            if option == "--mcast":
                self.group = value
            elif option == "--port":
                self.port = int(value)
            elif option == "--iface":
                self.iface = value
            elif option == "--session":
                self.session = value
            elif option == "--truth-out":
                self.truth = Path(value)
            elif option in ("--retrans-port", "--snapshot-port", "--control-port"):
                setattr(self, option[2:].replace("-port", ""), f"127.0.0.1:{value}")

    def command(self, text: str) -> str:
        """Sends a control command and returns the reply without its line feed. It is sent once only, since
        most are not safe to repeat."""
        host, _, port = self.control.rpartition(":")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
            client.settimeout(REPLY_SECONDS * time_scale())
            client.connect((host, int(port)))
            client.send(text.encode())
            return client.recv(65536).decode("utf-8", "replace").rstrip("\n")

    def halt(self, symbol: str) -> str:
        return self.command(f"halt {symbol}")

    def resume(self, symbol: str) -> str:
        return self.command(f"resume {symbol}")

    def pause(self, symbol: str) -> str:
        """An LULD trading pause."""
        return self.command(f"luld_pause {symbol}")

    def drop(self, packets: int = 1) -> str:
        return self.command(f"drop {packets}")

    def duplicate(self, packets: int = 1) -> str:
        return self.command(f"dup {packets}")

    def reorder(self, packets: int = 1) -> str:
        return self.command(f"reorder {packets}")

    def mark(self, label: str) -> str:
        return self.command(f"mark {label}")

    def stats(self) -> dict[str, int]:
        """Every counter by name, next_seq, and the faults as sent, dropped, duplicated and reordered."""
        return numbers_of_stats(self.command("stats"))

    def wait_for_messages(self, number: int, seconds: float = START_SECONDS) -> None:
        """Waits until the feed has sent the message of that number."""
        wait_until(lambda: self.stats()["next_seq"] > number, seconds, f"message {number}")

    def silence(self, seconds: float = START_SECONDS) -> int:
        """Freezes the market and waits for a heartbeat, which shows every receiver the last number. Returns
        that number. `command("rate 100")` brings the market back."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as tap:
            tap.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            tap.bind((self.group, self.port))
            membership = socket.inet_aton(self.group) + socket.inet_aton(self.iface)
            tap.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
            self.command("rate -1")
            next_number = self.stats()["next_seq"]
            end = time.monotonic() + seconds * time_scale()
            while time.monotonic() < end:
                tap.settimeout(max(0.01, end - time.monotonic()))
                packet = tap.recv(65536)
                if len(packet) == HEARTBEAT.size and HEARTBEAT.unpack(packet)[1:] == (next_number, 0):
                    return next_number - 1
        raise TimeoutError("the feed sent no heartbeat")

    def close(self) -> int:
        """Stops the feed and returns its exit status. A temporary folder is removed."""
        status = self.process.stop()
        for lease in self._leases:
            lease.release()
        if self._own_folder:
            shutil.rmtree(self.folder, ignore_errors=True)
        return status

    def __enter__(self) -> "Feed":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()
