"""When the feed does what: ticks, heartbeats, reports, files, start-up failures and the two ways to stop."""

import re
import signal
import socket
import struct
import time

import pytest
from feed import Feed, Process, program, wait_until
from mold import Listener
from time_scale import scaled

STATS = r"bench: stats quotes=\d+ .*snapshot_rejects=\d+ next_seq=\d+"
FAULTS = r"tessel faults: sent \d+ dropped \d+ duplicated \d+ reordered \d+"


def tick_times(listener):
    """The wall-clock seconds of each tick: the quotes of one tick all carry its time as participant time."""
    times = set()
    for _, _, messages in listener.data():
        for message in messages:
            if message[1:2] == b"Q":
                times.add(struct.unpack_from(">Q", message, 13)[0])
    return [time_ns * 1e-9 for time_ns in sorted(times)]


# ------------------------------------------------------------------------------------------ ticks, heartbeats


def test_interval_minus_one_no_ticks_but_heartbeats_files_snap_shot_and_control_work(tmp_path):
    feed = Feed(tmp_path, interval_ms=-1, book=True, bbo=True)
    with Listener(feed) as listener, feed:
        opening = feed.next_seq()
        wait_until(lambda: len(listener.heartbeats()) >= 3, what="three heartbeats")
        assert feed.next_seq() == opening
        beats = listener.heartbeats()
        assert [sequence for _, sequence in beats] == [opening] * len(beats)
        # Heartbeats pass no faster than one a second, and none before a second without a packet.
        times = [listener.data()[-1][0]] + [when for when, _ in beats]
        assert all(later - earlier > 0.95 for earlier, later in zip(times, times[1:]))
        assert feed.control("asof AAPL") == "ok asof AAPL"
        assert feed.next_seq() == opening + 1
        wait_until(lambda: listener.heartbeats()[-1][1] == opening + 1, what="a heartbeat with the new count")
        for path in (feed.book_path, feed.bbo_path):
            written = path.stat().st_mtime_ns
            wait_until(lambda: path.stat().st_mtime_ns > written, what=f"{path.name} written again")
        with socket.create_connection(("127.0.0.1", feed.snapshot_port), timeout=scaled(30)) as client:
            client.sendall(struct.pack(">Hc", 47, b"L") + b"LATE  " + b" " * 10 + b" " * 10 + b" " * 20)
            assert client.recv(3)[2:3] == b"A"
    assert feed.exit_code == 0


def test_heartbeats_do_not_pass_through_faults(tmp_path):
    feed = Feed(tmp_path, "--drop-every", "1", interval_ms=-1)
    with Listener(feed) as listener, feed:
        feed.control("dup 5")
        feed.control("reorder 5")
        wait_until(lambda: len(listener.heartbeats()) >= 2, what="two heartbeats")
        assert listener.data() == []
        stats = feed.stats()
        assert (stats["sent"], stats["duplicated"], stats["reordered"]) == (0, 0, 0)
        times = [when for when, _ in listener.heartbeats()]
        assert times[1] - times[0] > 0.95  # not one of them twice


def test_interval_of_100_ms_ticks_at_most_ten_times_a_second_and_needs_no_heartbeat(tmp_path):
    feed = Feed(tmp_path, interval_ms=100)
    with Listener(feed) as listener, feed:
        wait_until(lambda: len(tick_times(listener)) > 20, what="20 ticks")
        times = tick_times(listener)[1:]  # the first is the opening quotes'
        # No catching up: n intervals take at least n times 100 ms. A pass that is held up shifts one reading.
        assert times[-1] - times[0] > (len(times) - 1) * 0.1 - 0.3
        middle = sorted(later - earlier for earlier, later in zip(times, times[1:]))[len(times) // 2]
        assert 0.08 < middle < 0.3
        packets = listener.packets()
        for (earlier, _), (later, packet) in zip(packets, packets[1:]):
            if packet[18:20] == b"\0\0":
                assert later - earlier > 0.95  # only a machine that stalled for a second sees one


def test_interval_zero_ticks_in_every_pass(tmp_path):
    feed = Feed(tmp_path, interval_ms=0)
    with Listener(feed) as listener, feed:
        wait_until(lambda: len(tick_times(listener)) > 100, what="100 ticks")
        times = tick_times(listener)[1:]
        gaps = sorted(later - earlier for earlier, later in zip(times, times[1:]))
        assert gaps[len(gaps) // 2] < 0.05  # some 5 ms on an idle machine
        # Busy sockets make the passes, and with them the ticks, come faster.
        ticks = len(tick_times(listener))
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
            client.settimeout(scaled(30))
            for _ in range(200):
                client.sendto(b"stats", ("127.0.0.1", feed.control_port))
                client.recv(4096)
        wait_until(lambda: len(tick_times(listener)) >= ticks + 190, what="a tick a command")


# ---------------------------------------------------------------------------------------------------- reports


def test_defaults_stats_line_every_two_seconds_and_summary_every_ten(tmp_path):
    """Three feeds side by side, so that ten seconds are waited for once."""
    plain = Feed(tmp_path, control=False, truth=False)
    silent = Feed(tmp_path, control=False, truth=False, scenario="odd_lot_every=0")
    steered = Feed(tmp_path, truth=False, scenario="odd_lot_every=0")
    begin = time.monotonic()
    with plain, silent, steered:
        plain.wait_for_line("bench: stats")
        assert time.monotonic() - begin >= 2
        steered.wait_for_line("bench: stats")  # an open control channel is reason enough
        for feed in (plain, silent, steered):
            feed.wait_for_line("[tessel] msgs")
            assert time.monotonic() - begin >= 10
        elapsed = time.monotonic() - begin
        for feed in (plain, steered):
            lines = [line for line in feed.stderr if line.startswith("bench: stats")]
            assert 2 <= len(lines) <= elapsed / 2
            assert all(re.fullmatch(f"{STATS} {FAULTS}", line) for line in lines)
        assert not any(line.startswith("bench: stats") for line in silent.stderr)
        lines = plain.stderr
        at = next(number for number, line in enumerate(lines) if line.startswith("[tessel] msgs"))
        assert re.fullmatch(r"\[tessel\] msgs \d+ packets \d+ dropped 0 retrans 0 quotes \d+ trades \d+ "
                            r"snapshots 0", lines[at])
        wait_until(lambda: len(plain.stderr) > at + 1, what="the summary's second line")
        assert re.fullmatch(FAULTS, plain.stderr[at + 1])
        assert sum(line.startswith("[tessel] msgs") for line in lines) <= elapsed / 10


def test_bbo_file_is_never_seen_half_written(tmp_path):
    with Feed(tmp_path, interval_ms=5, book=True, bbo=True) as feed:
        wait_until(feed.bbo_path.exists, what="the first BBO file")
        contents = set()
        begin = time.monotonic()
        while time.monotonic() < begin + 1.5:
            text = feed.bbo_path.read_text()
            assert re.fullmatch(r"AAPL [\d.]+ [\d.]+\nMSFT [\d.]+ [\d.]+\nTSLA [\d.]+ [\d.]+\n", text)
            contents.add(text)
        assert len(contents) <= (time.monotonic() - begin) / 0.25 + 2  # not more often than every 250 ms
        wait_until(lambda: feed.bbo_path.read_text() not in contents, what="a further BBO file")


# --------------------------------------------------------------------------------------------------- stopping


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signal_prints_the_stop_lines_and_ends_with_0(tmp_path, number):
    with Feed(tmp_path, "--drop-every", "2", interval_ms=10) as feed:
        feed.wait_for_messages(200)
        begin = time.monotonic()
        assert feed.stop(number) == 0
        assert time.monotonic() - begin < 10  # some 5 ms on an idle machine
        faults, stats, stopped = feed.stderr[-3:]
        assert re.fullmatch(FAULTS, faults)
        assert re.fullmatch(STATS, stats)
        assert stopped == "[tessel] stopped"
        last = int(re.search(r"next_seq=(\d+)", stats)[1]) - 1
        assert max(line["seq"] for line in feed.truth()) <= last
        assert feed.truth_path.read_bytes().endswith(b"\n")


def test_stop_command_replies_prints_the_faults_summary_alone_and_ends_with_0(tmp_path):
    with Feed(tmp_path, interval_ms=10) as feed:
        feed.wait_for_messages(100)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
            client.settimeout(scaled(30))
            client.sendto(b"stop\n", ("127.0.0.1", feed.control_port))
            client.sendto(b"mark after\n", ("127.0.0.1", feed.control_port))
            assert client.recv(100) == b"ok stopping"  # without a line feed
        assert feed.wait() == 0
        assert re.fullmatch(FAULTS, feed.stderr[-1])
        assert not any("stopped" in line or "mark after" in line for line in feed.stderr)


# ------------------------------------------------------------------------------------------ start-up failures


def run(*arguments):
    """Runs the program to its end: (exit status, lines of standard error)."""
    with Process([program("tessel"), *arguments]) as process:
        return process.wait(), process.stderr


@pytest.mark.parametrize("arguments, line", [
    (["--help"], "unknown flag --help"),
    (["-h"], "unknown flag -h"),
    (["extra"], "unknown flag extra"),
    (["--quiet", "extra"], "unknown flag extra"),
    (["--port=1"], "unknown flag --port=1"),
    ([""], "unknown flag "),
    (["--port"], "--port needs a value"),
    (["--quiet", "--truth-out"], "--truth-out needs a value"),
    (["--port", "12", "--seed"], "--seed needs a value"),
    (["--port", "abc"], "tessel: --port: stoi: not a number: 'abc'"),
    (["--port", ""], "tessel: --port: stoi: not a number: ''"),
    (["--port", "99999999999"], "tessel: --port: stoi: out of range: '99999999999'"),
    (["--interval-ms", "x5"], "tessel: --interval-ms: stoi: not a number: 'x5'"),
    (["--drop-every", "never"], "tessel: --drop-every: stoul: not a number: 'never'"),
    (["--seed", "18446744073709551616"], "tessel: --seed: stoull: out of range: '18446744073709551616'"),
    (["--step-bps", "fast"], "tessel: --step-bps: stod: not a number: 'fast'"),
])
def test_bad_command_line_one_line_and_status_2(arguments, line):
    assert run(*arguments) == (2, [line])


@pytest.mark.parametrize("arguments, expected", [
    (["--drop-burst", "x:3"], "tessel: --drop-burst: stoull: not a number: 'x'"),
    (["--drop-burst", "3:"], "tessel: --drop-burst: stoul: not a number: ''"),
    (["--symbols", "IBM:abc"], "tessel: --symbols: stod: not a number: 'abc'"),
])
def test_bad_burst_or_price_status_2(tmp_path, arguments, expected):
    feed = Feed(tmp_path, *arguments, control=False, truth=False)
    try:
        status, lines = run(*feed.command()[1:])
        assert status == 2
        assert lines[-1] == expected
    finally:
        feed.__exit__()


def test_occupied_snap_shot_port_line_and_status_1_after_the_opening_messages(tmp_path):
    feed = Feed(tmp_path)
    with Listener(feed) as listener, socket.socket(socket.AF_INET, socket.SOCK_STREAM) as taken:
        taken.bind(("", feed.snapshot_port))
        taken.listen()
        status, lines = run(*feed.command()[1:])
        assert status == 1
        assert lines[-1] == (f"tessel: cannot listen on Snap-Shot port {feed.snapshot_port}: "
                             "Address already in use")
        assert not any(line.startswith("[tessel] UQDF") for line in lines)
        wait_until(lambda: 1 in listener.messages(), what="the first message")
        assert listener.messages()[1][:5] == b"1CIE "
    feed.__exit__()


def test_occupied_control_port_line_and_a_feed_without_control(tmp_path):
    feed = Feed(tmp_path)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken, Listener(feed) as listener:
        taken.bind(("127.0.0.1", feed.control_port))
        with feed:
            assert "tessel: control port: Address already in use" in feed.stderr
            assert not any("bench: control on" in line for line in feed.stderr)
            wait_until(lambda: len(tick_times(listener)) > 3, what="ticks")
            assert feed.stop() == 0
