"""Every companion program prints its version; the feed's own command line has no such option."""

import os
import re
import subprocess
from pathlib import Path

import pytest

from feed import program
from time_scale import scaled

SOURCE = Path(os.environ["TESSEL_SOURCE"])
VERSION = re.search(r"project\(tessel VERSION ([0-9.]+) ", (SOURCE / "CMakeLists.txt").read_text()).group(1)
IDENTITY = re.escape(VERSION) + r" \(([0-9a-f]{10,40}(-dirty)?|unknown)\)"


def companions():
    """The programs that the folders of tools/ declare."""
    declarations = [re.search(r"tessel_tool\((\S+)", path.read_text())
                    for path in sorted(SOURCE.glob("tools/*/tool.cmake"))]
    declared = [found.group(1) for found in declarations if found]  # a folder that tools share has no program
    assert {"tessel-listen", "tessel-judge"} <= set(declared)
    return declared


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False, timeout=scaled(60))


@pytest.mark.parametrize("name", companions())
def test_a_companion_program_prints_its_name_version_and_commit(name):
    done = run(program(name), "--version")
    assert (done.returncode, done.stderr) == (0, "")
    assert re.fullmatch(rf"{name} {IDENTITY}\n", done.stdout)


def test_the_feed_does_not_know_the_option():
    done = run(program("tessel"), "--version")
    assert (done.returncode, done.stdout, done.stderr) == (2, "", "unknown flag --version\n")


def test_the_feeds_file_holds_version_and_commit():
    """For those who have the file alone: `strings tessel`."""
    assert re.search(f"tessel {IDENTITY}".encode(), Path(program("tessel")).read_bytes())
