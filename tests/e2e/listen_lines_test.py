"""tessel-listen on two lines that carry one feed: what one loses the other brings."""

import fcntl
import json
import re
import signal
import struct
import subprocess
import termios

from capture import mold_packet, udp_frame, write_pcap
from feed import Feed, Process, program, wait_until
from time_scale import scaled
from two_lines import TwoLines
from vitals import has_reaction

SUMMARY = re.compile(r"line (\w+): (\d+) first, (\d+) second, (\d+) missing, behind ([\d.]+) ms$")


class Run:
    """A feed of at least that many messages, received on its lines until it is silent."""

    def __init__(self, feed, lines, messages, *options):
        self.out = feed.folder / "out.jsonl"
        receiver = Process([program("tessel-listen"), *lines.receiver_args(), "--from", "1",
                            "--out", self.out, *options])
        receiver.wait_for_line("joined")
        with lines, feed:
            feed.wait_for_messages(messages)
            end = feed.fall_silent()
            lines.wait_for_heartbeat(end)
            self.status = receiver.stop()
        self.numbers = set(range(1, end))
        self.text = "\n".join(receiver.stderr)
        self.rows = {found[1]: [float(number) for number in found.groups()[1:]]
                     for found in map(SUMMARY.search, receiver.stderr) if found}
        self.lost_on_both = self.numbers - lines.lines[0].sent - lines.lines[1].sent
        self.truth = [line for line in feed.truth_lines() if '"mark"' not in line]
        self.written = self.out.read_text().splitlines()

    def count_before(self, word):
        return int(re.search(r"(\d+) " + word, self.text)[1])


def test_both_lines_and_the_service_together_bring_everything(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    lines = TwoLines(feed, loss=0.05)
    run = Run(feed, lines, 5000, *feed.retrans_args(), "--patience-ms", "5000")
    assert run.status == 0, run.text
    assert run.written == run.truth
    # The service brought what both lost, and nothing that one of them brought.
    assert run.lost_on_both, "the lines lost nothing together: the test shows nothing"
    assert run.count_before("recovered") == len(run.lost_on_both), run.text
    assert run.count_before("duplicate") == 0, run.text
    for line in lines.lines:
        first, second, missing, _ = run.rows[line.name]
        assert first + second == len(line.sent), run.text
        assert missing == len(run.numbers - line.sent) > 0, run.text
    judged = subprocess.run([program("tessel-judge"), feed.truth_path, run.out], capture_output=True,
                            text=True, timeout=scaled(120), check=False)
    assert judged.stdout.startswith("AGREES"), judged.stdout + judged.stderr


def test_without_the_service_what_both_lost_is_missing_and_nothing_besides(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    lines = TwoLines(feed, loss=0.05)
    run = Run(feed, lines, 5000, "--patience-ms", "5000")
    assert run.status == 1, run.text
    assert run.lost_on_both, "the lines lost nothing together: the test shows nothing"
    assert run.count_before("lost;") == len(run.lost_on_both), run.text
    # A line of the truth is missing exactly when its message is.
    written = {json.loads(line)["seq"] for line in run.written}
    expected = {json.loads(line)["seq"] for line in run.truth}
    assert expected - written == expected & run.lost_on_both


def test_a_dark_line_holds_nothing_up(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    lines = TwoLines(feed, loss=0.05)
    lines.lines[1].dark = True
    run = Run(feed, lines, 3000, *feed.retrans_args(), "--patience-ms", "20")
    assert run.status == 0, run.text
    assert run.written == run.truth
    assert run.rows["A"][2] == len(run.lost_on_both) == run.count_before("recovered") > 0
    assert run.rows["B"] == [0, 0, len(run.numbers), 0]


def test_injected_delay_is_what_the_slower_line_is_behind(tmp_path):
    feed = Feed(tmp_path, interval_ms=20)
    lines = TwoLines(feed, delays=((0.0, 0.0), (0.3, 0.3)), packing=(1000, 1000))
    run = Run(feed, lines, 500, *feed.retrans_args(), "--patience-ms", "20000")
    assert run.status == 0, run.text
    assert run.rows["A"] == [len(run.numbers), 0, 0, 0], run.text
    assert run.rows["B"][:3] == [0, len(run.numbers), 0], run.text
    assert 299 <= run.rows["B"][3] < scaled(600), run.text


def start_of_day(number):
    # A start-of-day message with the number as its SIP time: 29 bytes.
    return b"1CIE " + number.to_bytes(8, "big") * 2 + bytes(8)


LINES = ["--line", "A=239.255.30.1:3001", "--line", "B=239.255.30.2:3002"]


def frame(line, first, end):
    packet = mold_packet(first, [start_of_day(number) for number in range(first, end)])
    port, group = {"A": (3001, "239.255.30.1"), "B": (3002, "239.255.30.2")}[line]
    return udp_frame(packet, port, destination=group)


def test_lines_of_a_capture_are_told_apart_by_group_and_port(tmp_path):
    path = tmp_path / "lines.pcap"
    write_pcap(path, [frame("A", 1, 5), frame("B", 1, 3), frame("A", 8, 10), frame("B", 3, 9),
                      frame("B", 9, 10)])
    done = subprocess.run([program("tessel-listen"), "--from-pcap", path, "--decode", *LINES],
                          capture_output=True, text=True, timeout=scaled(60), check=False)
    assert done.returncode == 0, done.stderr
    assert [json.loads(line)["seq"] for line in done.stdout.splitlines()] == list(range(1, 10))
    assert "line A: 6 first, 0 second, 3 missing" in done.stderr
    assert "line B: 3 first, 6 second, 0 missing" in done.stderr
    assert "0 duplicate, 0 reordered" in done.stderr


def test_interrupt_while_a_capture_is_read_ends_as_with_a_live_feed(tmp_path):
    path, out = tmp_path / "lines.pcap", tmp_path / "out.jsonl"
    write_pcap(path, [frame("A", 1, 5), frame("A", 7, 9)])
    reader = Process([program("tessel-listen"), "--from-pcap", "-", "--decode", "--out", out, *LINES[:2]],
                     stdin=subprocess.PIPE)
    with reader:
        # The input stays open: the program waits for more.
        reader.process.stdin.write(path.read_bytes())
        reader.process.stdin.flush()
        wait_until(lambda: waits_for_input(reader), what="the program to wait for its input")
        assert reader.stop() == 1
    assert [json.loads(line)["seq"] for line in out.read_text().splitlines()] == [1, 2, 3, 4, 7, 8]
    assert any("lost 2 messages from 5 on" in line for line in reader.stderr), reader.stderr
    assert any("6 messages (1 to 8)" in line for line in reader.stderr), reader.stderr


def waits_for_input(child):
    """It has read all that is in the pipe, and sleeps."""
    unread = struct.unpack("i", fcntl.ioctl(child.process.stdin, termios.FIONREAD, bytes(4)))[0]
    with open(f"/proc/{child.pid}/stat", encoding="ascii") as stat:
        state = stat.read().rsplit(")", 1)[1].split()[0]
    return unread == 0 and state == "S" and has_reaction(child.pid, signal.SIGINT)
