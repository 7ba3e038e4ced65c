"""Starts the feed for a test and steers it.

    with Feed(tmp_path, "--drop-every", "10", symbols="AAPL:190.00", scenario="trf_every=3") as feed:
        assert feed.control("halt AAPL") == "ok halt AAPL"
        feed.wait_for_line("AAPL halted")
        ...
    assert feed.exit_code == 0

Every feed gets its own multicast group and ports, so tests may run side by side. The addresses are
known before the feed starts: a receiver that has to see the first message is started before `start()`.
Programs, ports and groups are found as the Python package finds them; its own feed runs as soon as it is made
and asks for no more than a user does, which is too little for these tests.
"""

import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

from time_scale import scaled
from vitals import has_reaction

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))

from tessel.feed import numbers_of_stats
from tessel.ports import PORT_LAST, PortLease, lease_name, unlikely_group as unique_group
from tessel.process import program

__all__ = ["Feed", "PORT_LAST", "PortLease", "Process", "STOP_SECONDS", "free_port", "lease_name", "program",
           "unique_group", "wait_until"]

# On an idle machine; each is stretched by what this one is busy with.
START_SECONDS = 60
STOP_SECONDS = 60
REPLY_SECONDS = 30

def wait_until(condition, seconds=START_SECONDS, what="the condition"):
    """Calls `condition` until it returns something true, which is returned; fails after `seconds`, scaled."""
    begin = time.monotonic()
    while True:
        result = condition()
        if result:
            return result
        elapsed = time.monotonic() - begin
        if elapsed > scaled(seconds):
            raise TimeoutError(f"waited {elapsed:.1f} s for {what}")
        time.sleep(0.01)


def free_port():
    """A port that is free now, for a test that needs just a number. It stays reserved until the process
    ends."""
    lease = PortLease()
    _kept_leases.append(lease)
    return lease.number


_kept_leases = []


class Process:
    """A child process whose standard error is collected line by line while it runs."""

    def __init__(self, command, env=None, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL, cwd=None):
        self.command = [str(word) for word in command]
        self._lines = []
        self._changed = threading.Condition()
        self.process = subprocess.Popen(self.command, env=env, stdin=stdin, stdout=stdout,
                                        stderr=subprocess.PIPE, cwd=cwd)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self.process.stderr:
            with self._changed:
                self._lines.append(line.decode("utf-8", "replace").rstrip("\n"))
                self._changed.notify_all()
        with self._changed:
            self._changed.notify_all()

    @property
    def pid(self):
        return self.process.pid

    @property
    def stderr(self):
        """The lines of standard error so far."""
        with self._changed:
            return list(self._lines)

    def running(self):
        return self.process.poll() is None

    def wait_for_line(self, pattern, seconds=START_SECONDS):
        """Waits for a line of standard error that contains `pattern` (a text, or a compiled expression) and
        returns it. Fails when the process ends without one."""
        def matches(line):
            return pattern.search(line) if isinstance(pattern, re.Pattern) else pattern in line

        begin = time.monotonic()
        seen = 0
        with self._changed:
            while True:
                while seen < len(self._lines):
                    if matches(self._lines[seen]):
                        return self._lines[seen]
                    seen += 1
                ended = not self._reader.is_alive()
                elapsed = time.monotonic() - begin
                if ended or elapsed > scaled(seconds):
                    text = "\n".join(self._lines[-40:])
                    why = "it ended" if ended else f"{elapsed:.1f} s passed"
                    raise AssertionError(f"no line with {pattern!r}: {why}; its last lines:\n{text}")
                self._changed.wait(0.05)

    def wait(self, seconds=STOP_SECONDS):
        """Waits for the process to end by itself and returns its exit status."""
        try:
            code = self.process.wait(scaled(seconds))
        except subprocess.TimeoutExpired:
            self.kill()
            raise
        self._reader.join(scaled(seconds))
        return code

    def stop(self, number=signal.SIGINT, seconds=STOP_SECONDS):
        """Sends the signal, waits for the end and returns the exit status."""
        if self.running():
            self.process.send_signal(number)
        return self.wait(seconds)

    def kill(self):
        if self.running():
            self.process.kill()
            self.process.wait()
        self._reader.join(10)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()


class Feed:
    """One run of the feed with its own addresses.

    folder        where its files go: truth.jsonl, book.json, bbo.txt
    args          further command-line arguments; they come last, so they win
    scenario      the text of TESSEL_SCENARIO; None leaves the variable out
    truth, book, bbo, control    whether that output or the control channel is asked for
    symbols, participants, session, interval_ms, seed    the options of those names when not None
    """

    def __init__(self, folder, *args, scenario=None, truth=True, book=False, bbo=False, control=True,
                 symbols=None, participants=None, session="UTPBENCH01", interval_ms=None, seed=None):
        self.folder = Path(folder)
        self.args = [str(word) for word in args]
        self.scenario = scenario
        self.group = unique_group()
        self._leases = [PortLease() for _ in range(4)]
        self.port, self.retrans_port, self.snapshot_port, self.control_port = (
            lease.number for lease in self._leases)
        if not control:
            self.control_port = 0
        self.iface = "127.0.0.1"
        self.session = session
        self.truth_path = self.folder / "truth.jsonl" if truth else None
        self.book_path = self.folder / "book.json" if book else None
        self.bbo_path = self.folder / "bbo.txt" if bbo else None
        self._options = {"--symbols": symbols, "--participants": participants, "--interval-ms": interval_ms,
                         "--seed": seed, "--truth-out": self.truth_path, "--book-out": self.book_path,
                         "--bbo-out": self.bbo_path}
        self.exit_code = None
        self.stop_seconds = STOP_SECONDS
        self._child = None

    def command(self):
        words = [program("tessel"), "--mcast", self.group, "--port", self.port, "--iface", self.iface,
                 "--retrans-port", self.retrans_port, "--snapshot-port", self.snapshot_port,
                 "--control-port", self.control_port, "--session", self.session]
        for option, value in self._options.items():
            if value is not None:
                words += [option, value]
        return [str(word) for word in words] + self.args

    def environment(self):
        env = dict(os.environ)
        env.pop("TESSEL_SCENARIO", None)
        if self.scenario is not None:
            env["TESSEL_SCENARIO"] = self.scenario
        return env

    def make_process(self):
        return Process(self.command(), env=self.environment())

    def set_option(self, option, value):
        """Another value for an option that the constructor knows; it counts from the next start."""
        self._options[option] = value

    def start(self):
        """Starts the program and waits for its banner: from then on every service answers."""
        self.exit_code = None
        self._child = self.make_process()
        self._child.wait_for_line("[tessel] UQDF+UTDF")
        # The banner comes first: an interrupt right after it would end the program without its last lines.
        wait_until(lambda: not self.running() or has_reaction(self.pid, signal.SIGINT),
                   what="the feed to handle interrupts")
        return self

    def __enter__(self):
        return self if self._child is not None else self.start()

    def __exit__(self, kind=None, *_):
        """Stops a feed that still runs. Fails when it does not end, or not well, unless the test has failed
        already. One whose end the test has asked for, by stop() or wait(), is not judged again."""
        try:
            if self._child is not None and self.exit_code is None:
                self._end(expect_well=kind is None)
        finally:
            for lease in self._leases:
                lease.release()

    def _end(self, expect_well):
        was_running = self._child.running()
        hangs = False
        if was_running:
            self._child.process.send_signal(signal.SIGINT)
            try:
                self._child.process.wait(scaled(self.stop_seconds))
            except subprocess.TimeoutExpired:
                hangs = True
        self._child.kill()
        self.exit_code = self._child.process.returncode
        if not expect_well:
            return
        last = "\n".join(self.stderr[-20:])
        if hangs:
            raise AssertionError(f"the feed did not end when it was interrupted; its last lines:\n{last}")
        if was_running and self.exit_code != 0:
            raise AssertionError(f"the feed ended with {self.exit_code}, not 0; its last lines:\n{last}")

    @property
    def process(self):
        return self._child.process

    @property
    def pid(self):
        return self._child.pid

    @property
    def stderr(self):
        return self._child.stderr

    def running(self):
        return self._child.running()

    def wait_for_line(self, pattern, seconds=START_SECONDS):
        return self._child.wait_for_line(pattern, seconds)

    def stop(self, number=signal.SIGINT):
        """Stops the program by a signal and returns its exit status."""
        self.exit_code = self._child.stop(number)
        return self.exit_code

    def wait(self, seconds=STOP_SECONDS):
        """Waits until the program ends by itself (after "stop", say) and returns its exit status."""
        self.exit_code = self._child.wait(seconds)
        return self.exit_code

    def control(self, command):
        """Sends one control command and returns the reply's text without the line feed.

        A command is sent once only, because most of them are not safe to repeat."""
        data = command if isinstance(command, bytes) else command.encode()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
            client.settimeout(scaled(REPLY_SECONDS))
            client.connect(("127.0.0.1", self.control_port))
            client.send(data)
            return client.recv(65536).decode("utf-8", "replace").rstrip("\n")

    def stats(self):
        """The reply to "stats" as numbers: every counter by its name, next_seq, and the four fault counts
        as sent, dropped, duplicated and reordered."""
        return numbers_of_stats(self.control("stats"))

    def next_seq(self):
        return self.stats()["next_seq"]

    def wait_for_messages(self, count, seconds=START_SECONDS):
        """Waits until the feed has numbered more than `count` messages; returns the next number."""
        def enough():
            number = self.next_seq()
            return number if number > count else None
        return wait_until(enough, seconds, f"{count} messages")

    def tap(self):
        """A socket that has joined the feed's group. The caller closes it."""
        tap = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        tap.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        tap.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        tap.bind((self.group, self.port))
        tap.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                       socket.inet_aton(self.group) + socket.inet_aton(self.iface))
        return tap

    def fall_silent(self, seconds=START_SECONDS):
        """Stops the ticks and waits for the heartbeat that carries the last number. Returns the
        next number to be given. Commands still make messages afterwards; "rate" brings the ticks back."""
        with self.tap() as tap:
            self.control("rate 1000000")
            end = time.monotonic() + scaled(seconds)
            while time.monotonic() < end:
                tap.settimeout(max(0.01, end - time.monotonic()))
                packet = tap.recv(2048)
                number, count = struct.unpack("!QH", packet[10:20])
                if count == 0 and number == self.next_seq():
                    return number
        raise TimeoutError("the feed sent no heartbeat")

    def truth_lines(self):
        """The truth log so far: complete lines as texts."""
        text = self.truth_path.read_text()
        return text[:text.rfind("\n") + 1].splitlines()

    def truth(self):
        """The truth log so far, every complete line parsed."""
        return [json.loads(line) for line in self.truth_lines()]

    def receiver_args(self):
        """The options with which tessel-listen receives this feed."""
        return ["--mcast", self.group, "--port", str(self.port), "--iface", self.iface,
                "--session", self.session]

    def retrans_args(self):
        return ["--retrans", f"127.0.0.1:{self.retrans_port}"]

    def snapshot_args(self, user="LATE"):
        return ["--snapshot", f"127.0.0.1:{self.snapshot_port}", "--user", user]
