"""tessel-judge --latency: times in the handler's lines against the SIP times of the messages."""

import json
import random
import subprocess

import pytest

from feed import program

START = 1_700_000_000_000_000_000
LAST = 60_000


class Bench:
    def __init__(self, folder):
        self.folder = folder
        draw = random.Random(3)
        self.sip = {seq: START + seq * 10_000 for seq in range(1, LAST + 1)}
        self.received = {seq: int(draw.lognormvariate(10, 1)) for seq in self.sip}
        self.done = {seq: self.received[seq] + 250 for seq in self.sip}
        truth = "".join(f'{{"seq":{seq},"symbol":"AAPL"}}\n' for seq in self.sip if seq % 5)
        (folder / "truth.jsonl").write_text(truth)
        (folder / "times.jsonl").write_text("".join(f'{{"seq":{seq},"sip":{ns}}}\n'
                                                    for seq, ns in self.sip.items()))

    def line(self, seq):
        sip = self.sip[seq]
        return (f'{{"seq":{seq},"symbol":"AAPL","received":{sip + self.received[seq]},'
                f'"done":{sip + self.done[seq]}}}\n')

    def judge(self, order, *args):
        (self.folder / "output.jsonl").write_text("".join(map(self.line, order)))
        return subprocess.run([program("tessel-judge"), "truth.jsonl", "output.jsonl", "--latency",
                               "received,done", "--times", "times.jsonl", *args], cwd=self.folder,
                              capture_output=True, text=True, timeout=120, check=False)


def percentile(values, percent):
    values = sorted(values)
    return values[max(1, -(-len(values) * percent // 100)) - 1]


@pytest.fixture
def bench(tmp_path):
    return Bench(tmp_path)


def test_percentiles_are_those_of_the_values(bench):
    order = [seq for seq in bench.sip if seq % 5]
    done = bench.judge(order, "--json", "-")
    assert done.returncode == 0, done.stderr + done.stdout
    report = json.loads(done.stdout)
    assert report["verdict"] == "AGREES" and report["unknown_members"] == []
    for name, values in (("received", bench.received), ("done", bench.done)):
        exact = [values[seq] for seq in order]
        found = report["latency"][name]
        assert (found["count"], found["max"]) == (len(order), max(exact))
        for key, percent in (("p50", 50), ("p90", 90), ("p99", 99)):
            assert 0 <= found[key] - percentile(exact, percent) <= found[key] / 1000, key
        assert report["latency"][name + "_recovered"]["count"] == 0
    assert bench.judge(order, "--json", "-", "--jobs", "3").stdout == done.stdout
    assert "latency      received: 48,000 messages, p50 " in bench.judge(order).stdout


def test_recovered_messages_are_apart(bench):
    late = [seq for seq in range(2_000, 2_100) if seq % 5]
    for seq in late:
        bench.received[seq] = 50_000_000
    order = [seq for seq in bench.sip if seq % 5 and seq not in late]
    order[4_000:4_000] = late
    report = json.loads(bench.judge(order, "--json", "-").stdout)
    assert report["verdict"] == "AGREES"
    assert report["latency"]["received_recovered"]["count"] == len(late)
    assert report["latency"]["received_recovered"]["max"] == 50_000_000
    assert report["latency"]["received"]["count"] == 48_000 - len(late)
    assert report["latency"]["received"]["max"] < 50_000_000
    page = bench.folder / "page.html"
    bench.judge(order, "--report", page)
    assert page.read_text().count("<polyline") == 4


def test_wrong_options_and_files_are_status_2(bench):
    (bench.folder / "times.jsonl").write_text('{"seq":1,"sip":"x"}\n')
    done = bench.judge([1])
    assert (done.returncode, done.stderr) == (
        2, "tessel-judge: times.jsonl:1: no member 'sip' in nanoseconds\n")
    for options in (["--latency", "a"], ["--times", "times.jsonl"],
                    ["--latency", "a,a", "--times", "times.jsonl"],
                    ["--latency", "status", "--times", "times.jsonl"]):
        done = subprocess.run([program("tessel-judge"), "truth.jsonl", "output.jsonl", *options],
                              cwd=bench.folder, capture_output=True, text=True, timeout=60, check=False)
        assert done.returncode == 2 and done.stderr.startswith("tessel-judge: --latency"), options
