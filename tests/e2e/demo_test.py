"""scripts/demo, shortened: two receivers, two verdicts, status 0."""

import os
import subprocess
from pathlib import Path

from feed import program
from time_scale import scaled

DEMO = Path(__file__).resolve().parents[2] / "scripts" / "demo"


def run(*args):
    env = dict(os.environ, TESSEL_BIN=str(Path(program("tessel")).parent))
    return subprocess.run([DEMO, *args], capture_output=True, text=True, timeout=scaled(200), env=env)


def test_demo_prints_two_good_verdicts_and_ends_with_0():
    result = run("3")
    assert result.returncode == 0, result.stdout + result.stderr
    verdicts = [line for line in result.stdout.splitlines() if line.startswith("verdict on")]
    assert len(verdicts) == 2, result.stdout
    assert all("every line agrees with the truth" in line for line in verdicts)
    # The receivers had something to repair.
    assert "tessel faults: sent" in result.stderr and "dropped 0 " not in result.stderr


def test_demo_with_a_length_that_is_none_ends_with_2():
    assert run("soon").returncode == 2
