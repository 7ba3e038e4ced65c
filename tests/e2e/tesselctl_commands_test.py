"""tesselctl's control commands, statistics and account, against a running feed."""

import json
import re
import subprocess

import pytest

from ctl import ctl
from feed import Feed, Process, free_port, program, wait_until


def test_every_command_of_the_channel_has_its_reply(tmp_path):
    with Feed(tmp_path) as feed:
        opening = feed.wait_for_line("bench: control on")
        offered = re.search(r"\((.*)\)", opening).group(1).split(" | ")
        words = {"SYM": "AAPL", "N": "2", "MS": "50", "LABEL": "here", "LEVEL": "1", "MC": "P"}
        for usage in sorted(offered, key=lambda each: each == "stop"):  # the last one
            command = [words.get(word, word) for word in usage.split()]
            done = ctl(*command, feed=feed)
            assert (done.returncode, done.stderr) == (0, ""), command
            expected = {"stop": "ok stopping", "stats": None}.get(command[0], "ok " + " ".join(command))
            if expected:
                assert done.stdout == expected + "\n"
            else:
                assert done.stdout.startswith("ok quotes=") and " next_seq=" in done.stdout
        assert feed.wait() == 0


def test_err_is_status_1_and_its_text_is_shown(tmp_path):
    with Feed(tmp_path) as feed:
        done = ctl("halt", "NOPE", feed=feed)
        assert (done.returncode, done.stdout) == (1, "err unknown symbol\n")
        done = ctl("wipeout", "QN", "--json", feed=feed)
        assert done.returncode == 1
        assert json.loads(done.stdout) == {"command": "wipeout QN", "ok": False,
                                           "reply": "err wipeout needs a Market Center Originator ID"}
        done = ctl("rate", "-1", feed=feed)
        assert (done.returncode, done.stdout) == (0, "ok rate -1\n")


@pytest.mark.parametrize("words, error", [
    (["halt"], "'halt' needs an argument: write 'halt SYM'"),
    (["drop", "three"], "'drop' takes a whole number of at most 32 bits, not 'three'"),
    (["hlat", "AAPL"], "unknown command 'hlat'; did you mean 'halt'?; see tesselctl --help"),
    ([], "A subcommand is required; see tesselctl --help"),
    (["halt", "AAPL", "--", "--port", "1"], "-- and options of the feed go with run, not with halt"),
    (["--control", "nowhere", "pause"], "--control: 'nowhere' is not HOST:PORT"),
])
def test_what_is_asked_wrongly_is_status_2_and_never_sent(words, error):
    done = ctl(*words)
    assert done.returncode == 2
    assert done.stderr.startswith(f"tesselctl: {error}") and done.stderr.count("\n") == 1
    assert done.stdout == ""


def test_nobody_answering_is_status_3():
    port = free_port()
    for words in (["pause"], ["stats", "--json"], ["stats", "--watch"], ["account", "--received", "1"]):
        done = ctl("--control", f"127.0.0.1:{port}", *words)
        assert done.returncode == 3
        assert done.stderr == (f"tesselctl: nobody answers at 127.0.0.1:{port}; is a feed running with "
                               f"--control-port {port}?\n")


def test_stats_as_json_has_every_counter_by_name(tmp_path):
    with Feed(tmp_path, "--drop-every", "3", "--dup-every", "4") as feed:
        feed.wait_for_messages(300)
        ctl("rate", "-1", feed=feed)
        wait_until(lambda: feed.stats() == feed.stats(), what="a market that has stopped")
        stats = json.loads(ctl("stats", "--json", feed=feed).stdout)
        expected = feed.stats()
        faults = stats.pop("faults")
        assert faults["dropped"] > 0
        assert list(faults) == ["sent", "dropped", "duplicated", "reordered"]
        assert {**stats, **faults} == expected
        assert len(stats) == 25


def test_watch_shows_rates_until_the_feed_ends(tmp_path):
    with Feed(tmp_path) as feed:
        done = ctl("stats", "--watch", "--interval", "0.1", "--count", "3", feed=feed)
        assert done.returncode == 0
        heading, *lines = done.stdout.splitlines()
        assert heading.split()[:2] == ["next_seq", "msgs/s"]
        assert len(lines) == 3 and int(lines[2].split()[0]) >= int(lines[0].split()[0])
        endpoint = f"127.0.0.1:{feed.control_port}"
        words = ["--control", endpoint, "stats", "--watch", "--interval", "0.05", "--json"]
        watch = Process([program("tesselctl"), *words], stdout=subprocess.PIPE)
        assert json.loads(watch.process.stdout.readline())["next_seq"] > 0
        feed.control("stop")
        watch.wait_for_line("nobody answers at")
        assert watch.wait() == 3


def test_account_says_where_every_message_went(tmp_path):
    with Feed(tmp_path, "--drop-every", "5") as feed:
        listener = Process([program("tessel-listen"), *feed.receiver_args(), "--from", "1"])
        listener.wait_for_line("joined")
        feed.wait_for_messages(600)
        feed.fall_silent()
        listener.stop()
        summary = tmp_path / "summary.txt"
        summary.write_text("\n".join(listener.stderr) + "\n")
        log = tmp_path / "feed.txt"
        log.write_text("\n".join(feed.stderr) + "\n")
        received = int(re.search(r"(\d+) messages \(", summary.read_text()).group(1))
        sent = feed.next_seq() - 1
        done = ctl("account", "--listen-summary", summary, "--feed-log", log, feed=feed)
        assert done.returncode == 0 and done.stderr == ""
        line = r"sent (\d+), damaged on purpose (\d+), received (\d+), lost on the way (\d+)\n"
        numbers = re.fullmatch(line, done.stdout).groups()
        damaged = int(numbers[1])
        assert damaged > 0
        assert tuple(map(int, numbers)) == (sent, damaged, received, sent - damaged - received)
        reckoned = ctl("account", "--received", received, "--json", feed=feed)
        assert "reckoned" in reckoned.stderr
        assert json.loads(reckoned.stdout)["sent"] == sent


def test_a_full_standard_output_is_status_2():
    with open("/dev/full", "w", encoding="utf-8") as full:
        done = subprocess.run([program("tesselctl"), "--help"], stdout=full, stderr=subprocess.PIPE,
                              text=True, timeout=60, check=False)
    assert (done.returncode, done.stderr) == (2, "tesselctl: standard output: No space left on device\n")


def test_help_lists_every_command_and_the_exit_status():
    done = ctl("--help")
    for word in ("run", "script", "stats", "doctor", "account", "halt", "wipeout", "--control", "--json",
                 "--version", "Exit status: 0", "Examples:"):
        assert word in done.stdout, word
    for command, options in {"run": ["--config", "--dry-run"], "stats": ["--watch", "--interval", "--count"],
                             "script": ["--poll-ms"],
                             "account": ["--received", "--listen-summary", "--feed-log"],
                             "doctor": ["--mcast", "--port", "--iface", "--retrans", "--snapshot"]}.items():
        text = ctl(command, "--help").stdout
        assert all(option in text for option in options), text
