"""Feed, tessel-relay with two lossy lines, tessel-listen, judge: what one line brought is received once."""

import json
import re
import subprocess

import pytest

from feed import Feed, Process, free_port, program, unique_group, wait_until
from time_scale import scaled

IMPAIRMENTS = ("drop=5%,delay=200us..2ms", "drop=5%,delay=100us..1ms,payload=600")
FAULT = re.compile(r"tessel fault: line (\w+) dropped seq (\d+) \((\d+) messages?\)")
ROW = re.compile(r"line (\w+): (\d+) first, (\d+) second, (\d+) missing, behind ([\d.]+) ms$")


class Run:
    """A feed over a relay's two lines until it is silent, received with these options."""

    def __init__(self, feed, messages, *options):
        self.out = feed.folder / "out.jsonl"
        destinations = [f"{name}={unique_group()}:{free_port()}" for name in "AB"]
        relay_words = [f"--line={destination},{keys}" for destination, keys in zip(destinations, IMPAIRMENTS)]
        listen_words = [f"--line={destination}" for destination in destinations]
        receiver = Process([program("tessel-listen"), *listen_words, "--from", "1", "--patience-ms", "5000",
                            "--out", self.out, *options])
        receiver.wait_for_line("joined")
        relay = Process([program("tessel-relay"), "--seed", "7", *feed.receiver_args(), *relay_words])
        relay.wait_for_line("joined")
        with receiver, relay, feed:
            feed.wait_for_messages(messages)
            end = feed.fall_silent()
            assert relay.stop() == 0, relay.stderr
            self.status = receiver.stop()
        self.text = "\n".join(receiver.stderr)
        self.numbers = set(range(1, end))
        self.dropped = {"A": set(), "B": set()}
        for name, first, count in map(re.Match.groups, filter(None, map(FAULT.search, relay.stderr))):
            self.dropped[name].update(range(int(first), int(first) + int(count)))
        self.lost_on_both = self.dropped["A"] & self.dropped["B"]
        self.rows = {found[1]: [float(number) for number in found.groups()[1:]]
                     for found in map(ROW.search, receiver.stderr) if found}
        self.truth = [line for line in feed.truth_lines() if '"mark"' not in line]
        self.written = self.out.read_text().splitlines()

    def count_before(self, word):
        return int(re.search(r"(\d+) " + word, self.text)[1])


def judge(feed, run):
    return subprocess.run([program("tessel-judge"), feed.truth_path, run.out], capture_output=True, text=True,
                          timeout=scaled(120), check=False).stdout


def test_with_the_service_everything_agrees(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    run = Run(feed, 6000, *feed.retrans_args())
    assert run.status == 0, run.text
    assert run.lost_on_both, "the lines lost nothing together: the test shows nothing"
    assert run.written == run.truth
    assert judge(feed, run).startswith("AGREES")
    # Asked for and brought is what both lost, and nothing else.
    assert run.count_before("recovered") == len(run.lost_on_both), run.text
    for name, (first, second, missing, _) in run.rows.items():
        assert missing == len(run.dropped[name]), run.text
        assert first + second == len(run.numbers) - missing, run.text


def test_without_the_service_everything_but_what_both_lost_agrees(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    run = Run(feed, 6000)
    assert run.status == 1, run.text
    assert run.lost_on_both, "the lines lost nothing together: the test shows nothing"
    assert run.count_before("lost;") == len(run.lost_on_both), run.text
    expected = [line for line in run.truth if json.loads(line)["seq"] not in run.lost_on_both]
    assert [json.loads(line)["seq"] for line in run.written] == [json.loads(line)["seq"] for line in expected]


def test_injected_delays_come_out_of_the_latency_report(tmp_path):
    feed = Feed(tmp_path, interval_ms=10)
    destination = f"A={unique_group()}:{free_port()}"
    folder = tmp_path / "latency"
    folder.mkdir()
    relay = Process([program("tessel-relay"), *feed.receiver_args(), f"--line={destination},delay=400ms"])
    relay.wait_for_line("joined")
    receiver = Process([program("tessel-listen"), f"--line={destination}", "--latency-out", folder])
    receiver.wait_for_line("joined")
    with receiver, relay, feed:
        feed.wait_for_messages(500)
        feed.fall_silent()
        wait_until(lambda: any("latency of the last" in line for line in receiver.stderr))
        assert relay.stop() == 0
        assert receiver.stop() == 0
    median = next(float(found[1]) for line in receiver.stderr
                  if (found := re.search(r"latency sip-to-kernel: \d+ messages, p50 ([\d.]+) us", line)))
    assert median == pytest.approx(400_000, rel=0.05), receiver.stderr
