"""The helpers of these tests: what they promise about failing feeds, ports and limits."""

import os
import signal
import socket
import subprocess
import sys

import pytest
from feed import Feed, PortLease, Process, lease_name, wait_until
from time_scale import SCALE_MAX, scaled, time_scale

HANGS = "trap '' INT TERM; echo '[tessel] UQDF+UTDF' >&2; while :; do sleep 0.1; done"
ENDS_BADLY = "trap 'exit 3' INT TERM; echo '[tessel] UQDF+UTDF' >&2; while :; do sleep 0.1; done"


class StandIn(Feed):
    """A shell script in the place of the program."""

    def __init__(self, folder, script):
        super().__init__(folder, truth=False)
        self.script = script

    def command(self):
        return ["/bin/sh", "-c", self.script]


def test_feed_that_hangs_when_interrupted_fails_its_test(tmp_path):
    feed = StandIn(tmp_path, HANGS)
    feed.stop_seconds = 0.5
    with pytest.raises(AssertionError, match="did not end when it was interrupted"):
        with feed:
            pass
    assert feed.exit_code == -signal.SIGKILL


def test_feed_that_ends_badly_fails_its_test(tmp_path):
    with pytest.raises(AssertionError, match="ended with 3, not 0"):
        with StandIn(tmp_path, ENDS_BADLY):
            pass


def test_failure_of_the_test_itself_is_the_one_that_shows(tmp_path):
    with pytest.raises(ZeroDivisionError):
        with StandIn(tmp_path, ENDS_BADLY):
            raise ZeroDivisionError


def test_feed_that_the_test_has_ended_is_judged_by_the_test(tmp_path):
    with StandIn(tmp_path, ENDS_BADLY) as feed:
        assert feed.stop() == 3


def can_bind(number):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other:
        try:
            other.bind(lease_name(number))
            return True
        except OSError:
            return False


def test_leased_port_is_taken_for_every_process_until_released():
    lease = PortLease()
    assert not can_bind(lease.number)
    lease.release()
    assert can_bind(lease.number)


def test_lease_of_a_process_that_was_killed_is_free_again():
    script = ("import time; from feed import PortLease; lease = PortLease(); "
              "print(lease.number, flush=True); time.sleep(600)")
    env = {**os.environ, "PYTHONPATH": os.path.join(os.path.dirname(__file__), "..", "python_support")}
    with Process([sys.executable, "-c", script], env=env, stdout=subprocess.PIPE) as child:
        number = int(child.process.stdout.readline())
        assert not can_bind(number)
        child.process.kill()
        child.process.wait()
        child.process.stdout.close()
        wait_until(lambda: can_bind(number), what="the lease's end")


def test_leases_leave_no_file(tmp_path, monkeypatch):
    monkeypatch.setenv("TMPDIR", str(tmp_path))
    leases = [PortLease() for _ in range(5)]
    assert len({lease.number for lease in leases}) == 5
    assert not list(tmp_path.iterdir())
    for lease in leases:
        lease.release()


@pytest.mark.parametrize("text, scale", [("1", 1), ("2.5", 2.5), ("0.1", 1), ("1000", SCALE_MAX)])
def test_scale_that_is_asked_for_is_held_to_its_range(monkeypatch, text, scale):
    monkeypatch.setenv("TESSEL_TIME_SCALE", text)
    assert time_scale() == scale
    assert scaled(60) == 60 * scale


def test_scale_that_is_not_asked_for_follows_the_load(monkeypatch):
    monkeypatch.delenv("TESSEL_TIME_SCALE", raising=False)
    for load, scale in [(0.0, 1), (4.0, 2), (1000.0, SCALE_MAX)]:
        monkeypatch.setattr(os, "getloadavg", lambda load=load: (load, load, load))
        monkeypatch.setattr(os, "cpu_count", lambda: 2)
        assert time_scale() == scale
