"""tessel-capture costs at most 1.6 times the CPU of making the same messages in memory (tick_profile).

CPU time, not time: other work on the machine changes neither much, and changes both. Each capture is
measured beside a run in memory, and the median of the ratios counts."""

import os
import re
import statistics
import subprocess
from pathlib import Path

import pytest

BUILD = Path(os.environ["TESSEL_BUILD"])
RATIO_MAX = 1.6
PAIRS = 9
SYMBOLS = 10
TICKS = 36_000  # an hour at 100 ms

pytestmark = pytest.mark.skipif(not (BUILD / "tick_profile").exists(),
                                reason="skipped: tick_profile is built with the benchmarks alone")


def memory_folder(tmp_path):
    return Path("/dev/shm") if os.access("/dev/shm", os.W_OK) else tmp_path


def tick_ns():
    """CPU of a message in memory, in nanoseconds."""
    done = subprocess.run([BUILD / "tick_profile", str(SYMBOLS), str(TICKS)], capture_output=True, text=True,
                          check=True)
    return float(done.stdout.split()[3])


def capture_ns(path):
    """CPU of a message of a capture of the same market: everything from start to end, the file included."""
    symbols = ",".join(f"SAA{chr(ord('A') + at)}:{20 + at}.00" for at in range(SYMBOLS))
    command = [str(BUILD / "tessel-capture"), "--seed", "7", "--duration", "1h", "--symbols", symbols,
               "--pcap", str(path)]
    with subprocess.Popen(command, stderr=subprocess.PIPE, text=True) as process:
        log = process.stderr.read()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
    assert process.returncode == 0, log
    messages = int(re.search(r"^tessel-capture: ([\d,]+) messages", log, re.M).group(1).replace(",", ""))
    assert messages > 1_000_000
    return (usage.ru_utime + usage.ru_stime) * 1e9 / messages


def test_a_capture_costs_at_most_1_6_times_the_market_in_memory(tmp_path):
    path = memory_folder(tmp_path) / f"tessel-capture-speed-{os.getpid()}.pcap"
    try:
        ratios = []
        for _ in range(PAIRS):
            before = tick_ns()
            capture = capture_ns(path)
            ratios.append(2 * capture / (before + tick_ns()))
    finally:
        path.unlink(missing_ok=True)
    print("CPU of a capture over CPU in memory:", *(f"{ratio:.2f}" for ratio in sorted(ratios)))
    assert statistics.median(ratios) <= RATIO_MAX, ratios
