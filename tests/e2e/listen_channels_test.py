"""tessel-listen over a list of channels, judged against the channels' truth logs."""

import json
import subprocess

import pytest

from channels import Channels
from feed import Process, program, wait_until
from time_scale import scaled


@pytest.fixture(name="channels")
def channels_fixture(tmp_path):
    with Channels(tmp_path, 4, 40) as planned:
        yield planned


def listen(channels, out, *args):
    return Process([program("tessel-listen"), "--channels", channels.folder / "channels.json",
                    "--out-dir", out, *args])


def judge(channels, out, *args):
    done = subprocess.run([program("tessel-judge"), "--channels", channels.folder / "channels.json",
                           channels.folder / "truth", out, "--json", *args], capture_output=True, text=True,
                          timeout=scaled(100), check=False)
    assert done.returncode in (0, 1), done.stderr
    return json.loads(done.stdout)


def silence(channels):
    """No more ticks on any channel; the heartbeats after it show every receiver the last number."""
    for channel in channels.list:
        done = subprocess.run([program("tesselctl"), "--control", channel["control"], "rate", "1000000"],
                              capture_output=True, text=True, timeout=scaled(60), check=False)
        assert done.returncode == 0, done.stderr


def rows(channels):
    return json.loads(channels.ctl("status", "--json", "--interval", "0.1").stdout)["channels"]


def last_numbers(folder):
    found = {}
    for path in folder.glob("*.jsonl"):
        lines = [line for line in path.read_text().splitlines() if line.startswith('{"seq":')]
        found[path.stem] = json.loads(lines[-1])["seq"] if lines else 0
    return found


def receive_everything(channels, out, receiver):
    """Lets the channels run, silences them and ends the receiver when it has their last lines."""
    with receiver:
        receiver.wait_for_line("joined 4 channels")
        wait_until(lambda: all(row["next_seq"] > 400 for row in rows(channels)), what="messages everywhere")
        silence(channels)
        truth = last_numbers(channels.folder / "truth")
        wait_until(lambda: last_numbers(out) == truth, what="the last lines of every channel")
        return receiver.stop()


@pytest.mark.parametrize("threads", ["0", "1", "3", "9"])
def test_all_channels_are_received_in_one_process(channels, tmp_path, threads):
    assert channels.up("--interval-ms", "20", "--drop-every", "20", "--quiet").returncode == 0
    out = tmp_path / "out"
    receiver = listen(channels, out, "--threads", threads)
    assert receive_everything(channels, out, receiver) == 0, receiver.stderr
    joined = next(line for line in receiver.stderr if "joined 4 channels" in line)
    if threads != "0":
        count = min(4, int(threads))
        assert f", {count} thread{'' if count == 1 else 's'}, " in joined
    report = judge(channels, out)
    assert (report["verdict"], report["missing"], report["mismatched"]) == ("AGREES", 0, 0)
    assert [each["verdict"] for each in report["channels"]] == ["AGREES"] * 4
    assert report["truth_lines"] > 1000
    # Each channel's lines carry its name; the sum comes last.
    for name in ("ch01", "ch02", "ch03", "ch04"):
        assert any(line.startswith(f"tessel-listen: {name}: ") and " recovered" in line
                   for line in receiver.stderr)
    assert receiver.stderr[-1] == "tessel-listen: nothing missing"
    assert receiver.stderr[-2].startswith("tessel-listen: 4 channels: ")


def test_late_receiver_starts_from_the_snapshots(channels, tmp_path):
    assert channels.up("--interval-ms", "20", "--quiet").returncode == 0
    wait_until(lambda: all(row["next_seq"] > 300 for row in rows(channels)), what="messages to be late for")
    out = tmp_path / "out"
    receiver = listen(channels, out, "--late", "--user", "LATE")
    with receiver:
        for name in ("ch01", "ch02", "ch03", "ch04"):
            receiver.wait_for_line(f"{name}: Snap-Shot of ")
        wait_until(lambda: all(row["next_seq"] > 900 for row in rows(channels)), what="messages after it")
        silence(channels)
        truth = last_numbers(channels.folder / "truth")
        wait_until(lambda: last_numbers(out) == truth, what="the last lines of every channel")
        assert receiver.stop() == 0, receiver.stderr
    report = judge(channels, out, "--late")
    assert report["verdict"] == "AGREES" and report["left_out"] > 0


def test_without_requests_losses_are_counted(channels, tmp_path):
    assert channels.up("--interval-ms", "20", "--drop-every", "10", "--quiet").returncode == 0
    receiver = listen(channels, tmp_path / "out", "--no-retrans", "--seconds", "2")
    with receiver:
        assert receiver.wait() == 1
    assert receiver.stderr[-1] == "tessel-listen: 4 of 4 channels incomplete"
    assert any(line.startswith("tessel-listen: ch03: lost ") for line in receiver.stderr)


def test_a_channel_that_is_down_makes_the_whole_incomplete(channels, tmp_path):
    assert channels.up("--interval-ms", "20", "--quiet").returncode == 0
    for channel in channels.list[1:2]:
        subprocess.run([program("tesselctl"), "--control", channel["control"], "stop"], check=True,
                       capture_output=True, timeout=scaled(60))
    receiver = listen(channels, tmp_path / "out", "--seconds", "1.5")
    with receiver:
        assert receiver.wait() == 1
    assert "tessel-listen: ch02: no packets received" in receiver.stderr
    assert receiver.stderr[-1] == "tessel-listen: 1 of 4 channels incomplete"


@pytest.mark.parametrize("args, words", [
    (["--mcast", "239.1.1.1"], "--mcast does not go with --channels"),
    (["--retrans", "127.0.0.1:1"], "--retrans does not go with --channels"),
    (["--out", "x"], "--out is for one feed: not with --channels, which has --out-dir"),
    (["--latency"], "--latency is for one feed: not with --channels"),
    (["--late"], "--late needs --user"),
    (["--user", "LATE"], "--user and --password need --snapshot"),
    (["--late", "--user", "L", "--from", "5"], "--from does not go with --late"),
    (["--threads", "-1"], "--threads"),
])
def test_options_that_do_not_go_together_are_status_2(channels, tmp_path, args, words):
    receiver = listen(channels, tmp_path / "out", *args)
    with receiver:
        assert receiver.wait() == 2
    assert len(receiver.stderr) == 1 and words in receiver.stderr[0], receiver.stderr


@pytest.mark.parametrize("args, words", [
    (["--out-dir", "x"], "--out-dir needs --channels"),
    (["--late"], "--late needs --channels"),
    (["--channels", "/nowhere.json"], "/nowhere.json: No such file or directory"),
    (["--channels", "/dev/null"], "/dev/null: not JSON: broken at byte 1"),
])
def test_a_list_that_is_missing_or_broken_is_status_2(args, words):
    done = subprocess.run([program("tessel-listen"), *args], capture_output=True, text=True,
                          timeout=scaled(60), check=False)
    assert done.returncode == 2
    assert done.stderr.startswith("tessel-listen: ") and words in done.stderr
