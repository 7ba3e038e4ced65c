"""A small set of everything under valgrind's memcheck: no invalid access, no use of unset memory, no leak.

The sanitizers cover the same ground for all tests but do not see memory that was never set."""

import os
import signal
import subprocess
from pathlib import Path

from feed import Feed, Process, program
from mold import Requester
from soup import SoupClient, letters, packet
from time_scale import scaled

ERROR_STATUS = 99
MEMCHECK = ["valgrind", "--quiet", "--leak-check=full", "--errors-for-leak-kinds=definite,indirect,possible",
            f"--error-exitcode={ERROR_STATUS}", "--trace-children=no"]

# What parses bytes from outside, encodes, keeps messages and builds spins; short tests only.
UNIT_TESTS = ["CommandLine", "StrictNumbers", "ParseCount", "DropBurst", "Control", "ScenarioText", "Blocks",
              "MoldBytes", "FaultDecisions", "PublisherFaults", "SoupParser", "LoginFields", "MessageWriter",
              "ShortQuote", "LongQuote", "TradeReport", "PutPrice4", "CutLines", "WipeOut", "Halt",
              "LuldPause", "Spin"]
SIMULATED_RUNS = 3


def built(name):
    return str(Path(os.environ["TESSEL_BIN"]) / name)


def run_under_memcheck(*command):
    done = subprocess.run([*MEMCHECK, *command], capture_output=True, text=True, check=False,
                          timeout=scaled(200))
    assert done.returncode == 0, done.stdout[-4000:] + done.stderr[-4000:]
    return done.stdout


def test_memcheck_sees_a_planted_error(tmp_path):
    source = tmp_path / "planted.cpp"
    source.write_text("#include <cstdlib>\nint main() { volatile int* p = new int; return *p == 7; }\n")
    compiler = os.environ.get("CXX", "c++")
    subprocess.run([compiler, "-O0", "-o", tmp_path / "planted", source], check=True)
    done = subprocess.run([*MEMCHECK, tmp_path / "planted"], capture_output=True, text=True, check=False)
    assert done.returncode == ERROR_STATUS
    assert "uninitialised" in done.stderr and "definitely lost" in done.stderr


def test_unit_tests():
    wanted = ":".join(f"{suite}.*" for suite in UNIT_TESTS)
    listed = subprocess.run([built("unit_tests"), "--gtest_list_tests", f"--gtest_filter={wanted}"],
                            capture_output=True, text=True, check=True).stdout
    assert all(f"\n{suite}.\n" in listed for suite in UNIT_TESTS), "a suite that is gone"
    assert "[  PASSED  ]" in run_under_memcheck(built("unit_tests"), "--gtest_brief=1",
                                                f"--gtest_filter={wanted}")


def test_simulated_runs():
    said = run_under_memcheck(built("tessel_simulator"), "--runs", str(SIMULATED_RUNS))
    assert said.startswith(f"{SIMULATED_RUNS} runs, ") and "\n0 failed\n" in said


class FeedUnderMemcheck(Feed):
    def command(self):
        return [*MEMCHECK, *super().command()]


def test_feed_and_receiver_over_sockets(tmp_path):
    """Every service is used, every event happens, both programs end in their own time."""
    feed = FeedUnderMemcheck(tmp_path, "--drop-every", "7", "--dup-every", "5", "--reorder-every", "6",
                             book=True, bbo=True, interval_ms=20, symbols="AAPL:190.00,LONGNAMES:700",
                             scenario="band_every=1,trf_every=2,cancel_every=3,correct_every=4,asof_every=5")
    receiver = Process([*MEMCHECK, program("tessel-listen"), *feed.receiver_args(), *feed.retrans_args(),
                        "--out", tmp_path / "heard.jsonl"])
    with receiver:
        receiver.wait_for_line("joined")
        with feed:
            for command in ("halt AAPL", "resume AAPL", "luld_pause LONGNAMES", "mwcb 1", "wipeout Q",
                            "close AAPL", "asof AAPL", "mark here", "x" * 600):
                feed.control(command)
            with SoupClient(feed.snapshot_port) as client:
                assert letters(client.log_in()[1][-1]) == "ASE "
                client.send(packet("O"))
                client.wait_for_end()
            with Requester(feed) as requester:
                assert requester.fetch(1, 20)
            for symbol in ("AAPL", "LONGNAMES", "LONGNAMES"):
                feed.control(f"resume {symbol}")
            feed.wait_for_messages(500)
            feed.fall_silent()
            assert receiver.stop() == 0, receiver.stderr
            assert feed.stop(signal.SIGINT) == 0, feed.stderr[-40:]
    assert not any(line.startswith("==") for line in feed.stderr + receiver.stderr)
    assert (tmp_path / "heard.jsonl").read_text().splitlines() == [
        line for line in feed.truth_lines() if '"mark"' not in line]
