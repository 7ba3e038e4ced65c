"""tesselctl script: a timeline played against a running feed."""

import json
import re
import subprocess

from ctl import ctl
from feed import Feed, program


def play(feed, path, *options):
    return ctl("script", path, *options, feed=feed)


def script(tmp_path, text):
    path = tmp_path / "day.txt"
    path.write_text(text)
    return path


def test_lines_are_played_at_their_moments_in_order(tmp_path):
    path = script(tmp_path, "# a day\n+0.2s halt AAPL\n+0s mark first\n+0s mark second\n"
                            "+0.3s loop 3 every 100ms\n+0 drop 1 # one packet a round\nend\n"
                            "+600ms resume AAPL\n")
    with Feed(tmp_path) as feed:
        done = play(feed, path)
        assert (done.returncode, done.stderr) == (0, "")
        lines = [re.fullmatch(r"\+([0-9.]+)s line (\d+): (.*): ok \3", line).groups()
                 for line in done.stdout.splitlines()]
        assert [(int(line), text) for _, line, text in lines] == [
            (3, "mark first"), (4, "mark second"), (2, "halt AAPL"), (6, "drop 1"), (6, "drop 1"),
            (6, "drop 1"), (8, "resume AAPL")]
        wanted = [0, 0, 0.2, 0.3, 0.4, 0.5, 0.6]
        assert all(float(at) >= moment for (at, _, _), moment in zip(lines, wanted))
        feed.wait_for_line("AAPL halted")
        marks = [line["mark"] for line in feed.truth() if "mark" in line]
        assert marks == ["first", "second"]


def test_lines_by_number_are_done_before_the_next_tick(tmp_path):
    path = script(tmp_path, "at seq 130 mark later\nat seq 90 loop 3 every 10\nat seq 0 mark round\nend\n")
    with Feed(tmp_path, interval_ms=400) as feed:
        done = play(feed, path, "--json")
        assert done.returncode == 0
        played = [json.loads(line) for line in done.stdout.splitlines()]
        assert [each["command"] for each in played] == ["mark round"] * 3 + ["mark later"]
        assert all(each["ok"] for each in played)
        # No tick lies between the pass that gave the number waited for and the mark. A tick steps the
        # instruments in their order, so a second one would begin with a smaller secid.
        lines = feed.truth()
        marks = [each for each in lines if "mark" in each]
        assert len(marks) == 4
        for wanted, mark in zip([90, 100, 110, 130], marks):
            assert mark["seq"] >= wanted - 1
            tick = [each["secid"] for each in lines[:lines.index(mark)]
                    if "secid" in each and each["seq"] >= wanted]
            assert tick == sorted(tick)


def test_everything_is_checked_before_anything_is_done(tmp_path):
    path = script(tmp_path, "+0s mark never\n+1h frobnicate\n")
    with Feed(tmp_path) as feed:
        done = play(feed, path)
        assert done.returncode == 2
        assert done.stderr == f"tesselctl: {path}:2: unknown command 'frobnicate'\n"
        feed.wait_for_messages(50)
        assert not any("mark" in line for line in feed.truth())
        assert play(feed, tmp_path / "gone").returncode == 2


def test_an_err_is_status_1_and_the_rest_is_played(tmp_path):
    path = script(tmp_path, "+0s halt NOPE\n+0.1s mark after\n")
    with Feed(tmp_path) as feed:
        done = play(feed, path)
        assert done.returncode == 1
        assert "halt NOPE: err unknown symbol" in done.stdout
        assert "mark after: ok mark after" in done.stdout


def test_a_stop_ends_the_feed_and_the_script(tmp_path):
    with Feed(tmp_path) as feed:
        done = play(feed, script(tmp_path, "+0.1s stop\n"))
        assert done.returncode == 0
        assert feed.wait() == 0
        assert play(feed, tmp_path / "day.txt").returncode == 3
    with Feed(tmp_path) as feed:
        path = script(tmp_path, "+0.1s stop\n+1h mark late\n")
        done = play(feed, path)
        assert done.returncode == 1
        assert done.stderr == f"tesselctl: {path}: the feed has been stopped; 1 commands were not done\n"


def test_a_feed_that_ends_meanwhile_is_status_3(tmp_path):
    with Feed(tmp_path) as feed:
        child = subprocess.Popen(
            [program("tesselctl"), "--control", f"127.0.0.1:{feed.control_port}", "script", "-"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        child.stdin.write("+0s mark here\nat seq 1000000000 mark never\n")
        child.stdin.close()
        assert child.stdout.readline().endswith("mark here: ok mark here\n")
        feed.stop()
        assert child.wait(60) == 3
        assert "nobody answers" in child.stderr.read()
        child.stdout.close()
        child.stderr.close()
