"""The files of tessel-listen --latency-out, read by a library that is not ours, from npm."""

import json
import re
import subprocess

import pytest

from feed import Feed, Process, program
from npm import NPM, install_packages
from time_scale import scaled

STAGES = ("sip-to-kernel", "kernel-to-taken")
LEVELS = re.compile(r"p50 ([\d.]+) us, p90 ([\d.]+) us, p99 ([\d.]+) us, p99\.9 ([\d.]+) us, max ([\d.]+) us")


@pytest.fixture(scope="module", autouse=True)
def library():
    install_packages()


def comparable(text):
    """The rows of a percentile file without what the log cannot carry exactly: the largest value."""
    return [line.split() for line in text.splitlines() if line and not line.startswith("#[Max")]


def test_the_library_finds_the_percentiles_that_the_program_prints(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    folder = tmp_path / "latency"
    folder.mkdir()
    times = tmp_path / "times.jsonl"
    receiver = Process([program("tessel-listen"), *feed.receiver_args(), "--latency", "--latency-out", folder,
                        "--times", times])
    receiver.wait_for_line("joined")
    with receiver, feed:
        receiver.wait_for_line("latency of the last second")
        feed.wait_for_messages(2000)
        feed.fall_silent()
        assert receiver.stop() == 0
    text = "\n".join(receiver.stderr)
    messages = int(re.search(r"(\d+) messages \(", text)[1])
    done = subprocess.run(["node", "histogram.js", folder], cwd=NPM, capture_output=True, text=True,
                          timeout=scaled(60), check=False)
    assert done.returncode == 0, done.stderr
    read = json.loads(done.stdout)
    assert set(read) == set(STAGES)
    for stage in STAGES:
        printed = re.search(rf"latency {stage}: (\d+) messages, (.*)", text)
        assert int(printed[1]) == read[stage]["count"] == messages
        assert read[stage]["intervals"] >= 2
        levels = map(float, LEVELS.fullmatch(printed[2]).groups())
        for mine, theirs in zip(levels, read[stage]["percentiles"]):
            # Three digits, and one digit after the point in the printed text.
            assert mine == pytest.approx(theirs / 1000, rel=0.001, abs=0.051), (stage, printed[0])
        ours = (folder / f"{stage}.hgrm").read_text()
        assert comparable(ours) == comparable(read[stage]["text"])
        assert re.search(rf"#\[Max +=.*Total count += +{messages}\]", ours)
    lines = [json.loads(line) for line in times.read_text().splitlines()]
    assert [line["seq"] for line in lines] == list(range(1, messages + 1))
    assert all(line["sip"] > 1_600_000_000 * 10**9 for line in lines)
