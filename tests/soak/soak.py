#!/usr/bin/env python3
"""Runs a damaged feed for a long time among receivers that come and go, and looks for anything that adds up.

    TESSEL_BIN=build/release tests/soak/soak.py --minutes 30

The feed ticks as fast as the room for its files allows, drops, duplicates and holds back packets, plays a
scenario with every event and gets a random command every half second. Two receivers follow it from its first
message to its last; another joins by Snap-Shot every ten seconds, for a few seconds. First the histories are
filled at full speed (400,000 messages, and 100,000 trades of each instrument): from then on memory must be
flat.

Ends with 0 when the two receivers lack nothing and the judge finds each of their lines true, every joiner's
lines are those of the truth log, resident memory is flat and no descriptor is left open.
"""

import argparse
import os
import random
import re
import statistics
import sys
import tempfile
import threading
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "python_support"))

from feed import Feed, Process, program  # noqa: E402
from vitals import descriptors, peak_resident_bytes, resident_bytes  # noqa: E402

SYMBOLS = ["AAPL", "LONGNAMES"]
SCENARIO = ("name=soak,halt_after=20,halt_secs=3,pause_after=30,pause_secs=3,band_every=1,trf_every=1,"
            "cancel_every=20,correct_every=25,mwcb_level=2,mwcb_after=45,odd_lot_every=5,asof_every=40")
FAULTS = ("--drop-every", "20", "--dup-every", "15", "--reorder-every", "25")

# The histories are full after these: 400,000 messages; 100,000 trades of each of two instruments, with a
# margin because they do not trade evenly.
FULL_MESSAGES = 400_000
FULL_TRADES = 250_000
FILLING_SECONDS_MAX = 600
PUMPS_A_SECOND = 2000  # each command lets the loop, and with it the tick, go on immediately

DISK_BYTES = 2_600_000_000  # what the three files may come to; the run ends at DISK_BYTES_MAX
DISK_BYTES_MAX = 3_000_000_000
COPIES = 3  # of each line: the truth log's and the two receivers'

JOIN_EVERY_S = 10
JOINER_SECONDS = 4
COMMAND_EVERY_S = 0.5
LAST_ROUND_S = 12  # so long before the end the last joiner comes

# Growth from the first quarter of the samples to the last. Freed chunks come and go; a leak of 4 bytes a
# message would break it in some minutes.
GROWTH_MAX = 1024 * 1024


def say(text):
    print(f"soak: {text}", flush=True)


class Commander:
    """Sends random commands in a thread. What stops an instrument is undone sooner or later."""

    def __init__(self, feed, seed):
        self._feed = feed
        self._chooser = random.Random(seed)
        self._ending = threading.Event()
        self._thread = threading.Thread(target=self._run)
        self.sent = 0
        self.unexpected = []
        self._thread.start()

    def _random_commands(self):
        choose = self._chooser.choice
        symbol = choose(SYMBOLS)
        return choose([
            [f"halt {symbol}"], [f"luld_pause {symbol}"], [f"band {symbol}"], [f"close {symbol}"],
            [f"asof {symbol}"], [f"mwcb {choose('123')}"], [f"wipeout {choose('QNPZKVD')}"], ["pause"],
            [f"trf {choose('123')}"], [f"cancel {choose('123')}"], [f"correct {choose('123')}"],
            [f"drop {choose('123')}"], [f"dup {choose('123')}"], [f"reorder {choose('123')}"],
            [f"mark m{self.sent}"], ["stats"], ["rubbish"], ["halt NOPE"], ["wipeout"]])

    def _run(self):
        while not self._ending.wait(COMMAND_EVERY_S):
            commands = self._random_commands()
            if self.sent % 3 == 2:
                commands = ["resume"] + [f"resume {symbol}" for symbol in SYMBOLS] * 2
            for command in commands:
                answer = self._feed.control(command)
                self.sent += 1
                if not answer.startswith(("ok ", "err ")):
                    self.unexpected.append((command, answer))

    def stop(self):
        self._ending.set()
        self._thread.join()


class Joiner:
    """A receiver that joins by Snap-Shot, stays for some seconds and must have received the truth."""

    def __init__(self, feed, folder, number):
        self._truth_path = feed.truth_path
        self._truth_at = feed.truth_path.stat().st_size
        self._out = folder / f"joiner{number}.jsonl"
        self._process = Process([program("tessel-listen"), *feed.receiver_args(), *feed.retrans_args(),
                                 *feed.snapshot_args(f"J{number}"), "--seconds", JOINER_SECONDS,
                                 "--out", self._out])

    def finish(self):
        """What is wrong, or None; and how many lines were compared."""
        status = self._process.wait()
        text = "\n".join(self._process.stderr)
        lines = self._out.read_text().splitlines()
        self._out.unlink()
        found = re.search(r"Snap-Shot of .* up to (\d+)", text)
        if status != 0 or found is None or not lines:
            return f"status {status}, {len(lines)} lines: {text}", 0
        covered, last = int(found.group(1)), sequence_of(lines[-1])
        with open(self._truth_path, encoding="utf-8") as truth:
            # From the end of the line that was there. While the feed is paused the next one may be the
            # first that the joiner receives: none may be skipped.
            if self._truth_at > 0:
                truth.seek(self._truth_at - 1)
                truth.readline()
            expected = []
            for line in truth:
                if not line.startswith('{"mark"') and sequence_of(line) > last:
                    break
                if not line.startswith('{"mark"') and sequence_of(line) > covered:
                    expected.append(line.rstrip("\n"))
        if lines != expected:
            return f"{len(lines)} lines, {len(expected)} expected, up to {last}", len(lines)
        return None, len(lines)

    def kill(self):
        self._process.kill()


def sequence_of(line):
    return int(re.match(r'\{"seq":(\d+)', line).group(1))


def disk_bytes(folder):
    return sum(path.stat().st_size for path in folder.iterdir() if path.is_file())


def fill_histories(feed):
    """Ticks at full speed until nothing grows any more by design. Returns the seconds it took."""
    begin = time.monotonic()
    while True:
        for _ in range(PUMPS_A_SECOND // 4):
            feed.control("resume")
            time.sleep(1 / PUMPS_A_SECOND)
        for symbol in SYMBOLS * 2:
            feed.control(f"resume {symbol}")
        stats = feed.stats()
        if stats["next_seq"] > FULL_MESSAGES and stats["trades"] > FULL_TRADES:
            return time.monotonic() - begin
        if time.monotonic() - begin > FILLING_SECONDS_MAX:
            raise TimeoutError(f"the histories are not full after {FILLING_SECONDS_MAX} s: {stats}")


def slow_down(feed, folder, seconds):
    """Sets the tick interval so that the files stay within their room; returns it."""
    stats = feed.stats()
    # A tick prints each instrument's report of a trade to a TRF, so those count the ticks.
    ticks = stats["trf_prints"] / len(SYMBOLS)
    bytes_a_tick = disk_bytes(folder) / ticks
    room = DISK_BYTES - disk_bytes(folder)
    interval_ms = max(1, int(1000 * bytes_a_tick * seconds / room) + 1)
    assert feed.control(f"rate {interval_ms}") == f"ok rate {interval_ms}"
    return interval_ms


def soak(feed, folder, seconds):
    """The long part. Returns the memory samples [(second, bytes)], the joiners' faults and their lines."""
    samples, faults, compared, joined = [], [], 0, 0
    begin = time.monotonic()
    joiner, next_join = None, 0
    try:
        while (now := time.monotonic() - begin) < seconds:
            samples.append((now, resident_bytes(feed.pid)))
            if disk_bytes(folder) > DISK_BYTES_MAX:
                faults.append(f"the files have outgrown {DISK_BYTES_MAX} bytes after {now:.0f} s")
                break
            if now >= next_join and now < seconds - LAST_ROUND_S:
                joiner, next_join = Joiner(feed, folder, joined), next_join + JOIN_EVERY_S
                joined += 1
            if joiner is not None and now > next_join - JOIN_EVERY_S + JOINER_SECONDS + 1:
                fault, lines = joiner.finish()
                joiner = None
                compared += lines
                if fault is not None:
                    faults.append(f"joiner {joined}: {fault}")
            time.sleep(1)
    finally:
        if joiner is not None:
            joiner.kill()
    say(f"{joined} joiners, {compared} of their lines compared with the truth log")
    return samples, faults


def judge_memory(samples):
    """(fault or None) of the memory samples, whose figures are printed."""
    if len(samples) < 20:
        return "too few samples of the memory"
    slope = statistics.linear_regression([when for when, _ in samples], [size for _, size in samples]).slope
    quarter = len(samples) // 4
    growth = (statistics.median(size for _, size in samples[-quarter:]) -
              statistics.median(size for _, size in samples[:quarter]))
    say(f"resident memory {samples[0][1] / 1e6:.2f} MB at first, {samples[-1][1] / 1e6:.2f} MB at last, "
        f"slope {slope * 60 / 1024:+.1f} KiB a minute, growth from first to last quarter "
        f"{growth / 1024:+.0f} KiB")
    return f"memory grew by {growth} bytes" if growth > GROWTH_MAX else None


def judge_receivers(feed, receivers, folder):
    """The faults of the receivers that received everything."""
    faults = []
    for name, receiver in receivers.items():
        status = receiver.stop()
        say(f"receiver {name}: {receiver.stderr[-2].removeprefix('tessel-listen: ')}")
        if status != 0:
            faults.append(f"receiver {name} ended with {status}: {receiver.stderr[-5:]}")
        with Process([program("tessel-judge"), feed.truth_path, folder / f"{name}.jsonl"],
                     stdout=open(folder / "report", "w", encoding="utf-8")) as judge:
            status = judge.wait(3600)
        report = (folder / "report").read_text()
        if status != 0:
            faults.append(f"the judge on receiver {name}: {report}")
        else:
            lines = sum(1 for _ in open(folder / f"{name}.jsonl", "rb"))
            say(f"judge on receiver {name}: every one of {lines} lines is true, none is missing")
    return faults


def run(minutes, seed, folder):
    feed = Feed(folder, "--quiet", *FAULTS, scenario=SCENARIO, interval_ms=0, book=True, bbo=True,
                symbols=",".join(f"{symbol}:{190 * (at + 1)}" for at, symbol in enumerate(SYMBOLS)))
    receivers = {name: Process([program("tessel-listen"), *feed.receiver_args(), *feed.retrans_args(),
                                "--out", folder / f"{name}.jsonl"]) for name in ("first", "second")}
    try:
        for receiver in receivers.values():
            receiver.wait_for_line("joined")
        with feed:
            filling = fill_histories(feed)
            say(f"histories full after {filling:.0f} s: {feed.next_seq()} messages, "
                f"{resident_bytes(feed.pid) / 1e6:.1f} MB resident, "
                f"{disk_bytes(folder) / 1e6:.0f} MB of files")
            open_before = descriptors(feed.pid)
            interval_ms = slow_down(feed, folder, minutes * 60)
            say(f"a tick every {interval_ms} ms from here on")
            commander = Commander(feed, seed)
            try:
                samples, faults = soak(feed, folder, minutes * 60)
            finally:
                commander.stop()
            faults += [f"an answer to {command}: {answer}" for command, answer in commander.unexpected]
            say(f"{commander.sent} commands")
            faults += [judge_memory(samples)]
            open_after = descriptors(feed.pid)
            say(f"descriptors: {open_before} before, {open_after} after")
            if open_after != open_before:
                faults.append(f"{open_after} descriptors, {open_before} before")
            feed.control("resume")
            feed.fall_silent()
            stats = feed.stats()
            say(", ".join(f"{key} {value}" for key, value in stats.items()))
            say(f"peak memory {peak_resident_bytes(feed.pid) / 1e6:.1f} MB, "
                f"files {disk_bytes(folder) / 1e6:.0f} MB")
            idle = [key for key, value in stats.items() if value == 0 and key not in ("snapshot_rejects",)]
            if idle:
                faults.append(f"never happened: {idle}")
            faults += judge_receivers(feed, receivers, folder)
        if feed.exit_code != 0:
            faults.append(f"the feed ended with {feed.exit_code}")
    finally:
        for receiver in receivers.values():
            receiver.kill()
    return [fault for fault in faults if fault is not None]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--minutes", type=float, default=30)
    parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(4), "big"))
    options = parser.parse_args()
    say(f"{options.minutes:g} minutes, commands of seed {options.seed}")
    with tempfile.TemporaryDirectory(prefix="tessel-soak-") as folder:
        faults = run(options.minutes, options.seed, Path(folder))
    for fault in faults:
        say(f"FAULT: {fault}")
    say("passed" if not faults else f"{len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
