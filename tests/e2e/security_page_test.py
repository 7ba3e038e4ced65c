"""The security page: what it says that a stranger, a neighbor or a full pipe can do is what happens."""

import array
import fcntl
import json
import os
import re
import signal
import socket
import termios
import time
from pathlib import Path

import pytest
from feed import Feed, Process, wait_until
from mold import HEADER
from soup import SoupClient, login_request
from time_scale import scaled

ROOT = Path(__file__).resolve().parents[2]
PAGE = " ".join((ROOT / "docs" / "security.md").read_text().split())


def constant(path, name):
    """The first number of a constant's definition."""
    value = re.search(rf"{name} = ([\d']+)", (ROOT / path).read_text())[1]
    return int(value.replace("'", ""))


def test_figures_of_the_page_are_those_of_the_program():
    kept = constant("src/market/constants.h", "trade_history_bytes_max")
    erased = constant("src/market/constants.h", "trade_history_bytes_erased")
    record = constant("src/market/constants.h", "trade_history_record_bytes")
    assert (kept - erased) // record == 50_000 and kept // record == 100_000
    assert "last 50,000 to 100,000 trades" in PAGE
    # A record takes 32 bytes, which the source asserts.
    assert 100_000 * 32 == 3_200_000 and "3.2 MB at the limit, 25 GB for 8,000" in PAGE
    assert constant("src/snapshot/server.h", "soup_input_bytes_max") == 256
    assert "256 MiB with the usual limit of 1,024, 16 GiB with 65,536" in PAGE
    assert constant("src/snapshot/server.h", "spin_waits_max") == 2000 and "2,000 waits of 10 ms" in PAGE
    assert constant("src/snapshot/server.h", "snapshot_connections_max") == 999 and "999 connections" in PAGE
    assert constant("src/mold/retransmission_server.h", "retrans_reply_bytes_max") == 8
    assert "stops answering after 8 MiB" in PAGE
    assert constant("src/mold/publisher.h", "history_messages_max") == 400_000 and "400,000 messages" in PAGE


def reply_bytes(feed, first, count):
    """The bytes of the replies for these messages; asks again when a reply was lost to a full buffer."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.settimeout(scaled(1))
        for _ in range(20):
            client.sendto(HEADER.pack(feed.session.encode(), first, count), ("127.0.0.1", feed.retrans_port))
            messages = size = 0
            try:
                while messages < count:
                    packet = client.recv(2000)
                    messages += HEADER.unpack_from(packet)[2]
                    size += len(packet)
                return size
            except socket.timeout:
                pass
    raise AssertionError("the replies never came whole")


def test_request_of_20_bytes_is_answered_with_some_4_8_mb(tmp_path):
    assert "4.8 MB in 3,300 packets" in PAGE
    symbols = ",".join(f"S{number:03d}:{20 + number}" for number in range(300))
    with Feed(tmp_path, "--quiet", interval_ms=0, truth=False, symbols=symbols) as feed:
        feed.wait_for_messages(100_000)
        feed.control("rate -1")
        # In parts that fit into the socket's buffer.
        size = sum(reply_bytes(feed, first, 1000) for first in range(30_000, 95_000, 1000))
    assert 4.6e6 < size * 65_535 / 65_000 < 5.0e6


def test_rejected_login_prints_its_user_and_session_as_they_came_line_feeds_included(tmp_path):
    assert "the session name of a rejected one, up to ten, are printed as they came" in PAGE
    with Feed(tmp_path) as feed:
        with SoupClient(feed.snapshot_port) as client:
            client.send(login_request("A\nB\x1b[", "\nbench: x\n"))
            assert client.read_packet() == ("J", b"S")
        feed.wait_for_line("seq 0 rejected (S: ")
        lines = feed.stderr
        at = lines.index("bench: Snap-Shot login 'A")
        assert lines[at:at + 3] == ["bench: Snap-Shot login 'A", "B\x1b[' session '", "bench: x"]


# What another user's program does: binds a port of the feed's and prints what it receives.
THIEF = """
import socket, sys
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind((sys.argv[1], int(sys.argv[2])))
    print("bound", file=sys.stderr, flush=True)
    print(sock.recv(100), file=sys.stderr, flush=True)
"""


@pytest.mark.parametrize("service", ["control", "retransmission"])
def test_local_user_can_take_the_datagrams_of_the_udp_ports(tmp_path, service):
    assert "opens both with `SO_REUSEADDR`" in PAGE
    other_user = ["setpriv", "--reuid=65534", "--clear-groups"] if os.geteuid() == 0 else []
    with Feed(tmp_path) as feed:
        address, port = (("127.0.0.1", feed.control_port) if service == "control"
                         else ("0.0.0.0", feed.retrans_port))
        with Process([*other_user, "/usr/bin/python3", "-c", THIEF, address, port], cwd="/") as thief:
            thief.wait_for_line("bound")
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
                client.sendto(b"pause", ("127.0.0.1", port))
            assert thief.wait_for_line("pause") == "b'pause'"
        assert not any("paused" in line for line in feed.stderr)


def waiting_bytes(pipe):
    count = array.array("i", [0])
    fcntl.ioctl(pipe, termios.FIONREAD, count)
    return count[0]


def test_truth_log_into_a_pipe_that_nobody_reads_stops_the_feed_signals_included(tmp_path):
    assert "Signals wait, too, until the reader reads on or goes away" in PAGE
    fifo = tmp_path / "truth.fifo"
    os.mkfifo(fifo)
    reader = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
    feed = Feed(tmp_path, "--truth-out", fifo, truth=False, interval_ms=0)
    try:
        with feed:
            def stands_still():
                before = waiting_bytes(reader)
                time.sleep(0.5)
                return 60_000 < before == waiting_bytes(reader)
            wait_until(stands_still, what="a pipe that takes no more")
            feed.process.send_signal(signal.SIGTERM)
            time.sleep(0.3)  # the signal comes while the write waits
            assert feed.running()
            os.close(reader)
            reader = None
            assert feed.wait() == 0
            assert feed.stderr[-1] == "[tessel] stopped"
    finally:
        if reader is not None:
            os.close(reader)


def is_json(line):
    try:
        json.loads(line)
        return True
    except ValueError:
        return False


def test_quotation_mark_in_a_symbol_or_a_label_makes_lines_that_are_not_json(tmp_path):
    assert "a quotation mark in it makes a line that is not JSON (as does one in a symbol" in PAGE
    with Feed(tmp_path, symbols='A"B:10,WELL:20') as feed:
        assert feed.control('mark x"y') == 'ok mark x"y'
        wait_until(lambda: any('"WELL"' in line for line in feed.truth_lines()), what="lines of both")
        lines = feed.truth_lines()
    assert '{"mark":"x"y","seq":' in "\n".join(lines)
    assert [line for line in lines if not is_json(line)] == [
        line for line in lines if '"A"B"' in line or '"x"y"' in line]


def test_two_feeds_on_one_truth_log_mix_their_lines(tmp_path):
    """The options page has it; each line stays whole."""
    (tmp_path / "other").mkdir()
    with Feed(tmp_path, interval_ms=10) as feed:
        with Feed(tmp_path / "other", "--truth-out", feed.truth_path, truth=False, interval_ms=10) as other:
            feed.wait_for_messages(300)
            other.wait_for_messages(300)
        sequences = [line["seq"] for line in feed.truth()]
    backward = sum(later < earlier for earlier, later in zip(sequences, sequences[1:]))
    assert backward > 5, "they jump back and forth"


def test_hang_up_ends_the_feed_without_its_last_lines(tmp_path):
    assert "**SIGHUP** ends the feed" in PAGE
    with Feed(tmp_path) as feed:
        assert feed.stop(signal.SIGHUP) == -signal.SIGHUP
        assert not any("stopped" in line for line in feed.stderr)


def test_every_rejected_login_is_a_line_even_with_quiet(tmp_path):
    assert "nothing limits how many" in PAGE
    with Feed(tmp_path, "--quiet") as feed:
        for _ in range(20):
            with SoupClient(feed.snapshot_port) as client:
                client.send(login_request("", ""))
                assert client.read_packet() == ("J", b"A")
        wait_until(lambda: sum("rejected (A: " in line for line in feed.stderr) == 20, what="twenty lines")
