"""Runs tesselctl for a test."""

import subprocess

from feed import program

# Generous: the machine that runs the tests may be busy with others.
SECONDS = 200


def ctl(*words, feed=None, **options):
    """tesselctl with these words, steering `feed` when one is given. The result has its texts and status."""
    command = [program("tesselctl")]
    if feed is not None:
        command += ["--control", f"127.0.0.1:{feed.control_port}"]
    return subprocess.run([*command, *map(str, words)], capture_output=True, text=True, timeout=SECONDS,
                          check=False, **options)
