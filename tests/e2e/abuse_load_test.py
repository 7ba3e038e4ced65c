"""A feed that is stopped, interrupted and flooded: what comes late comes once, nothing is lost, and the
loop's pauses and memory stay within bounds."""

import random
import select
import signal
import socket
import struct
import time

from feed import Feed, Process, program, wait_until
from mold import Listener
from soup import SoupClient, login_request
from time_scale import scaled
from vitals import descriptors, longest_pause, process_state, resident_bytes

STOPPED_SECONDS = 3
INTERVAL_MS = 100

COMMANDS = 10_000
UNANSWERED_MAX = 100  # so that no datagram is lost to a full socket buffer
# Of a tick every 10 ms while the commands come in. Measured: 0.02 s and 1 MB.
FLOOD_PAUSE_MAX_S = 2.0
FLOOD_GROWTH_MAX = 16 * 1024 * 1024

# A spin of this many symbols is more than the sockets' buffers hold.
MANY_SYMBOLS = ",".join(f"S{number:04d}:100" for number in range(8000))


def tick_times(packets):
    """The wall-clock times of the ticks in nanoseconds, in order: a tick's quotes all carry its time."""
    times = set()
    for _, _, messages in packets:
        quotes = [message for message in messages if message[1:2] == b"Q"]
        times.update(struct.unpack_from(">Q", quote, 13)[0] for quote in quotes)
    return sorted(times)


def test_three_seconds_stopped_are_not_caught_up_and_nothing_is_lost(tmp_path):
    """The ticks' own times show it: were they caught up, some thirty would follow one another without an
    interval between them. (Their packets could arrive in any rhythm.)"""
    feed = Feed(tmp_path, interval_ms=INTERVAL_MS)
    out = tmp_path / "heard.jsonl"
    receiver = Process([program("tessel-listen"), *feed.receiver_args(), *feed.retrans_args(), "--out", out])
    with receiver, Listener(feed) as listener:
        receiver.wait_for_line("joined")
        with feed:
            feed.wait_for_messages(100)
            with SoupClient(feed.snapshot_port) as client:
                client.log_in("LATE")
                feed.process.send_signal(signal.SIGSTOP)
                wait_until(lambda: process_state(feed.pid) == "T", what="the feed to stop")
                asleep = time.time_ns()
                time.sleep(STOPPED_SECONDS)
                awake = time.time_ns()
                feed.process.send_signal(signal.SIGCONT)
                wait_until(lambda: len([tick for tick in tick_times(listener.data()) if tick >= awake]) >= 12,
                           what="twelve ticks")
                assert client.read_packet() == ("H", b""), "the connection outlives the sleep"
            feed.fall_silent()
            truth = feed.truth_lines()
            assert receiver.stop() == 0, receiver.stderr
        packets = listener.data()
    assert feed.exit_code == 0
    ticks = tick_times(packets)
    assert not [tick for tick in ticks if asleep < tick < awake]
    # One tick for all those that were missed; from then on an interval between any two, but for those few
    # where the machine was busy between the loop's look at its clock and the tick's own.
    after = [tick for tick in ticks if tick >= awake]
    assert len(after) >= 10
    steps = [(later - earlier) / 1e6 for earlier, later in zip(after, after[1:])]
    assert sum(step < INTERVAL_MS / 2 for step in steps) < 10, steps
    assert out.read_text().splitlines() == truth


def test_interrupt_in_the_middle_of_a_spin_that_is_read_to_its_end(tmp_path):
    with Feed(tmp_path, "--quiet", symbols=MANY_SYMBOLS, interval_ms=1000, truth=False) as feed:
        with SoupClient(feed.snapshot_port, receive_buffer=4096) as client:
            client.send(login_request("SLOW"))
            # The first bytes are there, the last are not written: its line comes when they are.
            assert select.select([client.socket], [], [], 60)[0]
            time.sleep(0.3)
            assert not any("spin to 'SLOW'" in line for line in feed.stderr)
            feed.process.send_signal(signal.SIGINT)
            accepted, messages = client.read_spin()
            assert accepted is not None
            assert len(messages) > 8000
        assert feed.wait() == 0
        assert feed.stderr[-1] == "[tessel] stopped"
        assert any("spin to 'SLOW'" in line for line in feed.stderr)


def send_commands(feed, commands):
    """Sends all of them as fast as they are answered; returns the answers and the seconds it took."""
    answers = []
    begin = time.monotonic()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.connect(("127.0.0.1", feed.control_port))
        client.settimeout(scaled(30))
        sent = 0
        while len(answers) < len(commands):
            while sent < len(commands) and sent - len(answers) < UNANSWERED_MAX:
                client.send(commands[sent])
                sent += 1
            answers.append(client.recv(2048))
    return answers, time.monotonic() - begin


def test_10000_commands_as_fast_as_they_are_answered(tmp_path, capsys, record_property):
    chooser = random.Random(5)
    rows = [b"stats", b"trf 1", b"cancel 1", b"correct 1", b"pause", b"resume", b"mark here", b"rate 10",
            b"halt MSFT", b"resume MSFT", b"band AAPL", b"nonsense"]
    commands = [chooser.choice(rows) for _ in range(COMMANDS)] + [b"resume", b"rate 10"]
    feed = Feed(tmp_path, "--quiet", interval_ms=10)
    with Listener(feed) as listener:
        with feed:
            feed.wait_for_messages(500)
            memory, open_before = resident_bytes(feed.pid), descriptors(feed.pid)
            answers, seconds = send_commands(feed, commands)
            feed.wait_for_messages(feed.next_seq() + 50)
            growth = resident_bytes(feed.pid) - memory
            assert descriptors(feed.pid) == open_before
            sequences = [line["seq"] for line in feed.truth()]
            last = feed.next_seq()
        times = [when for when, _ in listener.packets()]
    assert feed.exit_code == 0
    for command, answer in zip(commands, answers):
        expected = {b"stats": b"ok quotes=", b"nonsense": b"err unknown command 'nonsense'\n"}
        assert answer.startswith(expected.get(command, b"ok " + command + b"\n")), (command, answer)
    assert sequences == sorted(sequences) and 0 < sequences[-1] <= last
    pause = longest_pause(times)
    record_property("seconds", round(seconds, 3))
    record_property("longest_pause_s", round(pause, 3))
    record_property("memory_growth_bytes", growth)
    with capsys.disabled():
        print(f"\n{COMMANDS} commands in {seconds:.2f} s: longest pause of the feed {pause:.3f} s, "
              f"memory grew by {growth / 1e6:.1f} MB")
    assert pause < FLOOD_PAUSE_MAX_S
    assert growth < FLOOD_GROWTH_MAX
