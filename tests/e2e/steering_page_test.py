"""The examples of the steering page: every command gives the reply that the page shows, every scenario and
fault does what its table says."""

import os
import re
import subprocess
from pathlib import Path

import pytest
from feed import Feed, wait_until
from time_scale import scaled

PAGE = Path(__file__).resolve().parents[2] / "docs" / "steering.md"


def examples():
    """(command, reply) of every console example, in order."""
    found = re.findall(r"^\$ send (.*)\n(.*)$", PAGE.read_text(), re.M)
    assert len(found) > 30
    return found


def table_row(pattern):
    return re.findall(pattern, PAGE.read_text(), re.M)


def digits_masked(text):
    return re.sub(r"\d+", "#", text)


def test_every_command_of_the_page_gives_its_reply(tmp_path):
    with Feed(tmp_path) as feed:
        for command, reply in examples():
            assert digits_masked(feed.control(command)) == digits_masked(reply), command
        assert feed.wait() == 0
    # Every command that the channel offers has its example.
    opening = next(line for line in feed.stderr if "bench: control on" in line)
    offered = {usage.split()[0] for usage in re.search(r"\((.*)\)", opening).group(1).split(" | ")}
    assert offered <= {command.split()[0] for command, _ in examples()}


def test_the_pages_own_shell_function_talks_to_the_feed(tmp_path):
    function = re.search(r"^send\(\).*$", PAGE.read_text(), re.M).group(0)
    with Feed(tmp_path) as feed:
        script = function.replace("25180", str(feed.control_port)) + "\nsend drop 2\nsend stop\n"
        done = subprocess.run(["bash", "-c", script], capture_output=True, text=True,
                              timeout=scaled(60), check=True)
        assert done.stdout == "ok drop 2\nok stopping"
        assert feed.wait() == 0


# What shows that a key's example did its work: a counter of "stats" that must rise, or none for settings that
# only change how something looks.
KEY_COUNTER = {"name": None, "halt_after": "halts", "halt_secs": "quote_resumes", "pause_after": "pauses",
               "pause_secs": "quote_resumes", "band_every": "bands", "trf_every": "trf_prints",
               "cancel_every": "cancels", "correct_every": "corrections", "asof_every": "asofs",
               "mwcb_level": "mwcb", "mwcb_after": "mwcb", "odd_lot_every": None}


def test_every_scenario_key_has_an_example():
    rows = table_row(r'^\| `(\w+)` \| `TESSEL_SCENARIO="([^"]*)" build/release/tessel` \|')
    assert sorted(key for key, _ in rows) == sorted(KEY_COUNTER)
    assert all(f"{key}=" in text for key, text in rows)


@pytest.mark.parametrize("group", range(3))
def test_scenario_examples_do_what_they_say(tmp_path, group):
    rows = table_row(r'^\| `(\w+)` \| `TESSEL_SCENARIO="([^"]*)" build/release/tessel` \|')[group::3]
    feeds = []
    try:
        for at, (key, text) in enumerate(rows):
            folder = tmp_path / str(at)
            os.mkdir(folder)
            feeds.append((key, Feed(folder, scenario=text, truth=False).start()))
        started = [feed.stats() for _, feed in feeds]
        for (key, feed), before in zip(feeds, started):
            feed.wait_for_line("bench: scenario '")
            counter = KEY_COUNTER[key]
            if counter is not None:
                # The circuit breaker's default is ten seconds; everything else comes sooner.
                # Three bands are those of the start of day; the other counters start at 0.
                floor = min(before[counter], 3)
                wait_until(lambda f=feed, c=counter, least=floor: f.stats()[c] > least,
                           what=f"{key}: {counter}")
    finally:
        for _, feed in feeds:
            feed.__exit__()
    assert [feed.exit_code for _, feed in feeds] == [0] * len(feeds)


def test_fault_examples_hit_the_packets_they_name(tmp_path):
    rows = table_row(r"^\| `--[^`]*` \| `build/release/tessel (--[a-z-]+) ([0-9:]+)` \|")
    options = ["--drop-every", "--drop-burst", "--dup-every", "--reorder-every"]
    assert [option for option, _ in rows] == options
    for option, value in rows:
        with Feed(tmp_path, option, value, truth=False, interval_ms=10) as feed:
            line = feed.wait_for_line("tessel fault: ")
            kind = {"--drop-every": "dropped", "--drop-burst": "dropped", "--dup-every": "duplicated",
                    "--reorder-every": "reordered"}[option]
            assert kind in line
            if kind == "dropped":
                assert f"(packet {value.split(':')[0]}," in line
        assert feed.exit_code == 0
