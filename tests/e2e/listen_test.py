"""tessel-listen against the running feed: what it writes is the truth log, byte for byte."""

import json
import os
import pty
import re
import select
import signal
import socket
import struct
import subprocess
import termios
import time

import pytest

from feed import Feed, Process, program, wait_until

BUSY = ("halt_after=1,halt_secs=1,pause_after=1,pause_secs=1,band_every=1,trf_every=3,cancel_every=5,"
        "correct_every=7,asof_every=11")
FAULTS = ["--drop-every", "7", "--dup-every", "5", "--reorder-every", "11"]


def listen(feed, *args, **kwargs):
    """A receiver of this feed that has joined the group when this returns."""
    receiver = Process([program("tessel-listen"), *feed.receiver_args(), *args], **kwargs)
    receiver.wait_for_line("joined")
    return receiver


def lines_of_messages(feed):
    """The truth log without the marks, which have no message."""
    return [line for line in feed.truth_lines() if '"mark"' not in line]


def sequence_of(line):
    return int(re.match(r'\{"seq":(\d+)', line).group(1))


def stop_all(feed, *receivers):
    """Stops the receivers once they have the feed's last number from its heartbeat; returns their status."""
    feed.fall_silent()
    return [receiver.stop() for receiver in receivers]


def test_from_the_start_with_faults_and_a_scenario_the_lines_are_the_truth_log(tmp_path):
    feed = Feed(tmp_path, *FAULTS, scenario=BUSY, interval_ms=2,
                symbols="AAPL:190.00,BRK:700.00,CHEAP:0.02,LONGNAMES:5")
    out = tmp_path / "out.jsonl"
    with listen(feed, *feed.retrans_args(), "--out", out) as receiver, feed:
        for command in ("mark one", "mwcb 2", "wipeout N", "close AAPL", "asof BRK", "band CHEAP",
                        "luld_pause BRK"):
            assert feed.control(command) == f"ok {command}"
            time.sleep(0.1)
        wait_until(lambda: feed.stats()["cancels"] > 20, what="cancels")
        feed.control("resume BRK")
        feed.wait_for_messages(3000)
        assert stop_all(feed, receiver) == [0], receiver.stderr
        truth = lines_of_messages(feed)
        stats = feed.stats()
    assert out.read_text().splitlines() == truth
    # The run did hold what it was meant to hold.
    for kind in ("mwcb", "wipeouts", "asofs", "pauses", "halts", "corrections", "errors", "adf_quotes"):
        assert stats[kind] > 0, kind
    assert stats["dropped"] > 0 and stats["duplicated"] > 0 and stats["reordered"] > 0
    assert '"band"' in out.read_text() and '"reason":"LUDP"' in out.read_text()
    assert any("nothing missing" in line for line in receiver.stderr)


def test_late_joiner_by_snapshot_goes_on_with_the_truth_log(tmp_path):
    feed = Feed(tmp_path, *FAULTS, scenario=BUSY, interval_ms=2)
    out = tmp_path / "late.jsonl"
    with feed:
        feed.wait_for_messages(1500)
        with listen(feed, *feed.retrans_args(), *feed.snapshot_args(), "--out", out) as late:
            covered = int(re.search(r"up to (\d+)", late.wait_for_line("Snap-Shot of")).group(1))
            feed.wait_for_messages(covered + 1500)
            assert stop_all(feed, late) == [0], late.stderr
        truth = [line for line in lines_of_messages(feed) if sequence_of(line) > covered]
    assert covered >= 1500
    assert out.read_text().splitlines() == truth


def test_loss_without_a_service_is_named_and_ends_with_1(tmp_path):
    feed = Feed(tmp_path, interval_ms=5)
    out = tmp_path / "out.jsonl"
    with listen(feed, "--from", "1", "--out", out) as receiver, feed:
        feed.wait_for_messages(300)
        feed.control("drop 2")
        dropped = feed.wait_for_line("tessel fault: dropped seq")
        feed.wait_for_messages(600)
        assert stop_all(feed, receiver) == [1]
        truth = lines_of_messages(feed)
    first = int(re.search(r"seq (\d+)", dropped).group(1))
    named = re.compile(rf"lost \d+ messages? from {first} on")
    assert any(named.search(line) for line in receiver.stderr), receiver.stderr
    assert any("incomplete" in line for line in receiver.stderr)
    written = out.read_text().splitlines()
    assert 0 < len(written) < len(truth)
    assert {sequence_of(line) for line in written} < {sequence_of(line) for line in truth}


def test_unanswered_requests_end_in_the_loss(tmp_path):
    feed = Feed(tmp_path, interval_ms=5)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 0))
        silent.settimeout(60)
        address = f"127.0.0.1:{silent.getsockname()[1]}"
        with listen(feed, "--retrans", address, "--retries", "2", "--timeout-ms", "50") as receiver, feed:
            feed.wait_for_messages(100)
            feed.control("drop 1")
            feed.wait_for_line("dropped seq")
            requests = [silent.recv(64) for _ in range(3)]
            assert stop_all(feed, receiver) == [1]
        assert len(requests[0]) == 20 and requests[0][:10] == b"UTPBENCH01"
        assert requests[0] == requests[1] == requests[2]
        silent.setblocking(False)
        with pytest.raises(BlockingIOError):
            silent.recv(64)
    assert any("3 requests" in line for line in receiver.stderr), receiver.stderr


def test_count_ends_by_itself_with_exactly_that_many_messages(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    out = tmp_path / "out.jsonl"
    with listen(feed, *feed.retrans_args(), "--count", "500", "--decode", "--out", out) as receiver, feed:
        assert receiver.wait() == 0
    decoded = [json.loads(line) for line in out.read_text().splitlines()]
    assert [message["seq"] for message in decoded] == list(range(1, 501))


def test_decode_writes_every_message_with_its_fields(tmp_path):
    feed = Feed(tmp_path, interval_ms=2, scenario=BUSY)
    out = tmp_path / "out.jsonl"
    with listen(feed, *feed.retrans_args(), "--decode", "--out", out) as receiver, feed:
        feed.control("wipeout Q")
        feed.control("mwcb 1")
        feed.wait_for_messages(3000)
        assert stop_all(feed, receiver) == [0]
        truth = {sequence_of(line): json.loads(line) for line in lines_of_messages(feed)}
    decoded = [json.loads(line) for line in out.read_text().splitlines()]
    assert [message["seq"] for message in decoded] == list(range(1, len(decoded) + 1))
    assert [message["kind"] for message in decoded[:5]] == [
        "start_of_day", "decline_levels", "directory_short", "directory_long", "indicator"]
    kinds = {message["kind"] for message in decoded}
    assert kinds >= {"session_open", "wipe_out", "trading_action", "price_band", "collar", "mwcb_status",
                     "quote_short", "quote_long", "mpid_quote", "trade_short", "cancel_error", "correction",
                     "as_of"}
    for message in decoded:
        line = truth.get(message["seq"])
        if message["kind"] in ("trade_short", "trade_long"):
            assert line["trade"] == [message["price"] / 1e6, message["size"] // 1_000_000,
                                     message["market_center"], message["conditions"]]
        elif message["kind"] == "cancel_error":
            assert line["cancel_error"][0] == message["id"] and line["cancel_error"][4] == message["function"]
        elif message["kind"] in ("session_open", "directory_short", "mpid_quote", "collar", "wipe_out"):
            assert line is None
    quotes = [message for message in decoded if message["kind"] in ("quote_short", "quote_long")]
    assert all(("nbbo" in quote) == (quote["nbbo_indicator"] in "23") for quote in quotes)


def test_decode_shows_the_spin_before_the_stream(tmp_path):
    out = tmp_path / "out.jsonl"
    with Feed(tmp_path, interval_ms=5) as feed:
        with listen(feed, *feed.snapshot_args(), "--decode", "--count", "50", "--out", out) as receiver:
            assert receiver.wait() == 0, receiver.stderr
    decoded = [json.loads(line) for line in out.read_text().splitlines()]
    spin = [message for message in decoded if message["seq"] == 0]
    assert spin == decoded[:len(spin)]
    assert spin[0]["kind"] == "start_of_day" and spin[-1]["kind"] == "end_of_snapshot"
    assert sum(message["kind"] == "quote_long" for message in spin) == 3 * 7
    first = spin[-1]["snapshot_sequence"] + 1
    assert [message["seq"] for message in decoded[len(spin):]] == list(range(first, first + 50))


def test_rejected_login_and_missing_service_end_with_1(tmp_path):
    with Feed(tmp_path, interval_ms=50) as feed:
        command = [program("tessel-listen"), *feed.receiver_args()]
        wrong = Process([*command, "--session", "YESTERDAY", *feed.snapshot_args()])
        assert wrong.wait() == 1
        assert any("login rejected (S" in line for line in wrong.stderr), wrong.stderr
        closed = feed.control_port   # nobody listens there for TCP
        nobody = Process([*command, "--snapshot", f"127.0.0.1:{closed}", "--user", "X", "--retries", "1"])
        assert nobody.wait() == 1
        assert any("Snap-Shot: connect" in line for line in nobody.stderr), nobody.stderr


def test_two_late_joiners_take_turns_at_the_snapshot_service(tmp_path):
    with Feed(tmp_path, interval_ms=5) as feed:
        joiners = [listen(feed, *feed.retrans_args(), *feed.snapshot_args(f"U{i}"), "--count", "200")
                   for i in range(3)]
        assert [joiner.wait() for joiner in joiners] == [0, 0, 0], [joiner.stderr for joiner in joiners]


def test_nothing_heard_ends_with_1(tmp_path):
    feed = Feed(tmp_path)   # never started: only its addresses are used
    receiver = Process([program("tessel-listen"), *feed.receiver_args(), "--seconds", "0.3"])
    assert receiver.wait() == 1
    assert any("no packets received" in line for line in receiver.stderr)


@pytest.mark.parametrize("args, message", [
    (["--bogus"], "--bogus"),
    (["--retrans", "nowhere"], "not HOST:PORT"),
    (["--retrans", "127.0.0.1:70000"], "not HOST:PORT"),
    (["--snapshot", "127.0.0.1:1"], "needs --user"),
    (["--user", "X"], "need --snapshot"),
    (["--port", "abc"], "--port"),
    (["--mcast", "not-a-group", "--seconds", "1"], "not an IPv4 address"),
    (["--view", "--seconds", "1"], "needs a terminal"),
    (["--out", "/nonexistent/folder/file", "--seconds", "1"], "/nonexistent/folder/file"),
    (["--from-pcap", "/nonexistent.pcap"], "/nonexistent.pcap"),
])
def test_bad_options_end_with_2_and_are_named(args, message):
    result = subprocess.run([program("tessel-listen"), *args], capture_output=True, text=True, timeout=60)
    assert result.returncode == 2
    assert message in result.stderr


def test_help_ends_with_0():
    result = subprocess.run([program("tessel-listen"), "--help"], capture_output=True, text=True, timeout=60)
    assert result.returncode == 0
    assert "--retrans" in result.stdout


def test_view_shows_the_market_and_gives_the_terminal_back(tmp_path):
    with Feed(tmp_path, interval_ms=5, symbols="AAPL:190.00,MSFT:410.00") as feed:
        master, slave = pty.openpty()
        termios.tcsetwinsize(slave, (12, 140))
        receiver = listen(feed, *feed.retrans_args(), "--view", stdout=slave)
        os.close(slave)
        feed.control("halt MSFT")
        screen = b""

        def seen():
            nonlocal screen
            while select.select([master], [], [], 0)[0]:
                try:
                    screen += os.read(master, 65536)
                except OSError:   # the other end is closed and everything was read
                    break
            return b"AAPL" in screen and b"H T1" in screen and b"msg/s" in screen

        wait_until(seen, what="the picture")
        receiver.process.send_signal(signal.SIGINT)
        assert receiver.wait() == 0, receiver.stderr
        seen()
        os.close(master)
    assert screen.startswith(b"\x1b[?1049h")
    assert screen.endswith(b"\x1b[?25h\x1b[?1049l")


def udp_frame(group, source_port, port, payload):
    """One Ethernet frame with an IPv4 UDP datagram to the group."""
    udp = struct.pack("!HHHH", source_port, port, 8 + len(payload), 0) + payload
    ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0, 1, 17, 0, socket.inet_aton("127.0.0.1"),
                     socket.inet_aton(group))
    return b"\0" * 12 + b"\x08\0" + ip + udp


def test_capture_file_gives_the_same_lines_as_the_network(tmp_path):
    feed = Feed(tmp_path, "--reorder-every", "5", "--dup-every", "3", interval_ms=5)
    with feed.tap() as tap:
        with listen(feed, *feed.retrans_args(), "--out", tmp_path / "live.jsonl") as receiver, feed:
            feed.wait_for_messages(600)
            feed.control("reorder_every 0")
            feed.wait_for_messages(700)
            assert stop_all(feed, receiver) == [0]
        tap.setblocking(False)
        with open(tmp_path / "feed.pcap", "wb") as capture:
            capture.write(struct.pack("<IHHIIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, 1))
            for number in range(1_000_000):
                try:
                    frame = udp_frame(feed.group, 9, feed.port, tap.recv(2048))
                except BlockingIOError:
                    break
                times = (number // 1000, number % 1000)
                capture.write(struct.pack("<IIII", *times, len(frame), len(frame)) + frame)
    args = [*feed.receiver_args(), "--from-pcap", tmp_path / "feed.pcap"]
    result = subprocess.run([program("tessel-listen"), *args, "--out", tmp_path / "replay.jsonl"],
                            capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    assert (tmp_path / "replay.jsonl").read_text() == (tmp_path / "live.jsonl").read_text()
    result = subprocess.run([program("tessel-listen"), *args, "--decode"], capture_output=True, text=True,
                            timeout=60)
    assert result.returncode == 0
    sequences = [json.loads(line)["seq"] for line in result.stdout.splitlines()]
    assert sequences == list(range(1, len(sequences) + 1)) and len(sequences) >= 700


def test_packets_that_the_kernel_drops_are_reported_with_the_remedy_and_recovered(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    out = tmp_path / "out.jsonl"
    with listen(feed, "--rcvbuf", "4096", *feed.retrans_args(), "--out", out) as receiver, feed:
        receiver.process.send_signal(signal.SIGSTOP)
        feed.wait_for_messages(3000)   # far more than the socket buffer holds
        receiver.process.send_signal(signal.SIGCONT)
        line = receiver.wait_for_line("the kernel dropped")
        assert stop_all(feed, receiver) == [0], receiver.stderr
        truth = lines_of_messages(feed)
    assert "net.core.rmem_max" in line and "sysctl -w" in line
    assert out.read_text().splitlines() == truth
