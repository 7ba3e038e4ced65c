"""The options page: what it says of unchecked values, shared ports and rates is what the feed does."""

import re
import socket
import struct
import subprocess
from pathlib import Path

import pytest
from feed import Feed, free_port, program, wait_until
from time_scale import scaled

PAGE = Path(__file__).resolve().parents[2] / "docs" / "options.md"


def rows_of(heading):
    """The first cells of the table under a heading."""
    section = PAGE.read_text().split(f"## {heading}\n")[1].split("\n## ")[0]
    return [line.split(" | ")[0][2:] for line in section.splitlines() if line.startswith("| ")][1:]


def folder(parent, name):
    """A new folder for one of several feeds."""
    (parent / name).mkdir()
    return parent / name


def banner(feed):
    return feed.wait_for_line("UQDF+UTDF")


# An option and what the banner shows of it.
SHOWN = [
    (["--port", "70000"], ":4464 "),
    (["--port", "25177x"], ":25177 "),
    (["--retrans-port", "-1"], "retrans 65535)"),
    (["--snapshot-port", "0"], "SoupBinTCP :0 "),
    (["--mcast", "nonsense"], "nonsense:"),
    (["--mcast", "10.0.0.1"], "10.0.0.1:"),
    (["--iface", "nonsense"], "iface nonsense,"),
    (["--session", "MUCHTOOLONGNAME"], "session MUCHTOOLON,"),
]


@pytest.mark.parametrize("options, text", SHOWN, ids=[" ".join(options) for options, _ in SHOWN])
def test_value_without_a_check_is_accepted_as_the_page_says(tmp_path, options, text):
    assert any(options[1].strip() in row for row in rows_of("What is not checked")), options
    with Feed(tmp_path, *options) as feed:
        assert text in banner(feed)


@pytest.mark.parametrize("symbols, price", [("AAPL", 100), ("AAPL:-5", -5)])
def test_symbol_prices_without_a_check(tmp_path, symbols, price):
    assert any(f"`--symbols {symbols}`" == row for row in rows_of("What is not checked"))
    with Feed(tmp_path, symbols=symbols) as feed:
        trade = wait_until(lambda: next((line for line in feed.truth() if "trade" in line), None))
        assert abs(trade["trade"][0] - price) <= 1


def test_one_name_twice_makes_two_instruments_and_commands_reach_the_first(tmp_path):
    with Feed(tmp_path, symbols="AAPL:1,AAPL:2") as feed:
        assert feed.control("halt AAPL") == "ok halt AAPL"
        wait_until(lambda: {line["secid"] for line in feed.truth() if line.get("ah") == "H"} == {1})


def test_counts_below_zero(tmp_path):
    with Feed(tmp_path, "--drop-every", "-3") as feed:
        wait_until(lambda: feed.stats()["sent"] > 12)
        assert feed.stats()["dropped"] == 0
        feed.control("drop -1")
        sent = feed.stats()["sent"]
        wait_until(lambda: feed.stats()["dropped"] > 5)
        assert feed.stats()["sent"] == sent
        feed.control("drop 0")
        wait_until(lambda: feed.stats()["sent"] > sent)


def test_rates_that_are_no_whole_number(tmp_path):
    with Feed(tmp_path) as feed:
        feed.control("rate -1")
        at = feed.stats()["next_seq"]
        assert feed.stats()["next_seq"] == at
        for rate in ("0.5", "x"):
            feed.control("rate -1")
            at = feed.stats()["next_seq"]
            feed.control(f"rate {rate}")
            wait_until(lambda before=at: feed.stats()["next_seq"] > before)


def test_commands_with_odd_arguments(tmp_path):
    with Feed(tmp_path) as feed:
        feed.control("mwcb 0")
        wait_until(lambda: feed.stats()["halts"] == 3)
        feed.control("mwcb 9")
        assert feed.stats()["mwcb"] == 2
        feed.control("trf 1.9")
        assert feed.control("wipeout Z") == "ok wipeout Z"
        assert feed.control("halt AAPL extra") == "ok halt AAPL extra"
        assert feed.stats()["halts"] == 4


def test_shared_retransmission_port_is_answered_by_the_feed_started_last(tmp_path):
    port = free_port()
    with Feed(folder(tmp_path, "a"), "--retrans-port", port, session="FIRST") as first, \
            Feed(folder(tmp_path, "b"), "--retrans-port", port, session="SECOND") as second:
        assert banner(first) and banner(second)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
            client.settimeout(scaled(30))
            # Asked in this order, an answer to the first request would come first.
            for session in (b"FIRST     ", b"SECOND    "):
                client.sendto(session + struct.pack("!QH", 1, 1), ("127.0.0.1", port))
            assert client.recv(2048)[:10] == b"SECOND    "


def test_shared_control_port_is_obeyed_by_the_feed_started_last(tmp_path):
    port = free_port()
    with Feed(folder(tmp_path, "a"), "--control-port", port) as first, \
            Feed(folder(tmp_path, "b"), "--control-port", port) as second:
        assert banner(first) and banner(second)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
            client.settimeout(scaled(30))
            client.sendto(b"mark here", ("127.0.0.1", port))
            assert client.recv(2048).startswith(b"ok mark here")
        assert second.wait_for_line("bench: mark here")
        assert not any("mark here" in line for line in first.stderr)


def test_taken_snapshot_port_ends_the_second_feed(tmp_path):
    with Feed(tmp_path) as feed:
        done = subprocess.run([program("tessel"), "--snapshot-port", str(feed.snapshot_port), "--port",
                               str(free_port()), "--retrans-port", str(free_port())],
                              capture_output=True, text=True, timeout=scaled(60), check=False)
        assert done.returncode == 1
        assert "tessel: cannot listen on Snap-Shot port" in done.stderr


def test_truth_log_in_a_missing_folder_is_not_reported(tmp_path):
    with Feed(tmp_path, "--truth-out", tmp_path / "missing" / "truth.jsonl") as feed:
        wait_until(lambda: feed.stats()["next_seq"] > 30)
        assert not (tmp_path / "missing").exists()
        assert not any("missing" in line for line in feed.stderr)


def test_intervals_up_to_five_milliseconds_give_one_rate(tmp_path):
    """Two feeds side by side, so that a busy machine slows both: 0 and 5 ms differ far less than 5 and 20."""
    with Feed(folder(tmp_path, "a"), "--interval-ms", "0") as none, \
            Feed(folder(tmp_path, "b"), "--interval-ms", "5") as five, \
            Feed(folder(tmp_path, "c"), "--interval-ms", "20") as twenty:
        feeds = (none, five, twenty)
        wait_until(lambda: all(feed.stats()["next_seq"] > 100 for feed in feeds))
        before = [feed.stats()["next_seq"] for feed in feeds]
        wait_until(lambda: twenty.stats()["next_seq"] > before[2] + 500)
        grown = [feed.stats()["next_seq"] - start for feed, start in zip(feeds, before)]
    assert 0.6 < grown[0] / grown[1] < 1.6
    assert grown[1] > 2 * grown[2]
