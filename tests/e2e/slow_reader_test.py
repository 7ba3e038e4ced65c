"""A feed whose standard error is read late loses no line of it, not even when it is stopped meanwhile."""

import array
import fcntl
import re
import signal
import subprocess
import termios
import time

from feed import Feed, wait_until
from time_scale import scaled

SMALL_PIPE_BYTES = 4096
LONGEST_LINE_BYTES = 1024  # the line that does not fit any more may be a long one
F_SETPIPE_SZ = 1031


def waiting_bytes(pipe):
    count = array.array("i", [0])
    fcntl.ioctl(pipe, termios.FIONREAD, count)
    return count[0]


def test_line_that_waits_for_its_reader_survives_an_interrupt(tmp_path):
    feed = Feed(tmp_path, "--dup-every", "1", "--quiet", interval_ms=0, truth=False)
    child = subprocess.Popen(feed.command(), env=feed.environment(), stderr=subprocess.PIPE)
    try:
        fcntl.fcntl(child.stderr, F_SETPIPE_SZ, SMALL_PIPE_BYTES)

        def stands_still():
            before = waiting_bytes(child.stderr)
            time.sleep(0.5)
            return SMALL_PIPE_BYTES - LONGEST_LINE_BYTES < before == waiting_bytes(child.stderr)

        wait_until(stands_still, what="a pipe that takes no more")
        child.send_signal(signal.SIGINT)
        time.sleep(0.2)  # the signal comes while the line waits
        lines = child.stderr.read().decode().splitlines()
        assert child.wait(scaled(60)) == 0
    finally:
        child.kill()
        child.wait()
        child.stderr.close()
    assert lines[-1] == "[tessel] stopped"
    counted = next(int(re.search(r"duplicated (\d+)", line).group(1)) for line in reversed(lines)
                   if line.startswith("tessel faults: "))
    reported = [line for line in lines if re.fullmatch(r"tessel fault: duplicated seq \d+", line)]
    assert len(reported) == counted > 40
