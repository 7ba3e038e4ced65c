"""tessel-console beside a feed of 8,000 symbols: it keeps up, and a page costs the server little."""

import os
import threading
import time
from pathlib import Path

import pytest
from console import Console
from feed import Feed, wait_until
from time_scale import time_scale

SYMBOLS = 8000
PAGE_CPU_MAX = 0.05  # of one core
SECONDS = 6


def is_optimized():
    cache = (Path(os.environ["TESSEL_BUILD"]) / "CMakeCache.txt").read_text()
    return "CMAKE_BUILD_TYPE:STRING=Debug" not in cache and "TESSEL_SANITIZE:BOOL=ON" not in cache


def connection_seconds(pid):
    """The CPU time of each thread that serves a connection."""
    times = {}
    for thread in os.listdir(f"/proc/{pid}/task"):
        try:
            text = Path(f"/proc/{pid}/task/{thread}/stat").read_text()
        except FileNotFoundError:
            continue
        if "(connection)" in text:
            fields = text.rsplit(")", 1)[1].split()
            times[thread] = (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    return times


@pytest.mark.skipif(not is_optimized(), reason="a measurement of the optimized build")
def test_8000_symbols_no_loss_four_updates_a_second_and_little_cpu(tmp_path):
    symbols = ",".join(f"S{number:05}:{50 + number % 200}" for number in range(SYMBOLS))
    # A third of the full rate: other tests may run beside this one.
    with Feed(tmp_path, truth=False, interval_ms=20, symbols=symbols) as feed, Console(feed) as console:
        console.wait_for(lambda state: state["total"] == SYMBOLS, query="?limit=0")
        updates, done = [], threading.Event()

        def page():
            with console.stream("?limit=100") as stream:
                while not done.is_set():
                    name, data = stream.next_event()
                    if name == "state":
                        updates.append((time.monotonic(), data["receiver"]["messages"]))
        thread = threading.Thread(target=page)
        thread.start()
        wait_until(lambda: updates, what="the first update")
        before, begin = connection_seconds(console.pid), time.monotonic()
        time.sleep(SECONDS)
        after, elapsed = connection_seconds(console.pid), time.monotonic() - begin
        done.set()
        thread.join()
        receiver = console.state("?limit=0")["receiver"]
        assert receiver["lost"] == 0 and receiver["kernel_drops"] == 0
        shares = [(after[each] - before[each]) / elapsed for each in before if each in after]
        assert shares and max(shares) < PAGE_CPU_MAX * time_scale()
        rate = len([at for at, _ in updates if begin <= at < begin + elapsed]) / elapsed
        assert 4.4 > rate > 3.2 / time_scale()
        assert updates[-1][1] - updates[0][1] > SYMBOLS * SECONDS
