"""tessel-listen when what surrounds it fails: streams, files, signals, services, bad numbers."""

import os
import re
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest

from feed import Feed, Process, program, unique_group, free_port, wait_until
from mold import HEADER


def listen_command(feed, *args):
    return [str(word) for word in (program("tessel-listen"), *feed.receiver_args(), *args)]


def lines_of_messages(feed):
    return [line for line in feed.truth_lines() if '"mark"' not in line]


def sequence_of(line):
    return int(re.match(r'\{"seq":(\d+)', line).group(1))


class FakeFeed:
    """The sending side of a feed, and on request a retransmission service whose history begins late."""

    def __init__(self):
        self.group, self.port = unique_group(), free_port()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))
        self.service = None

    def receiver_args(self):
        return ["--mcast", self.group, "--port", str(self.port), "--iface", "127.0.0.1"]

    @staticmethod
    def packet(first, count):
        # A start-of-day message with the number as its time: 29 bytes.
        blocks = [struct.pack("!H5sQQ8s", 29, b"1CIE ", number, number, b"")
                  for number in range(first, first + count)]
        return HEADER.pack(b"UTPBENCH01", first, count) + b"".join(blocks)

    def send(self, first, count):
        self.socket.sendto(self.packet(first, count), (self.group, self.port))

    def serve_history(self, oldest, end):
        """Answers requests for [oldest, end) as the feed does: nothing for what is no longer there."""
        self.service = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.service.bind(("127.0.0.1", 0))

        def serve():
            while True:
                try:
                    request, address = self.service.recvfrom(64)
                except OSError:
                    return
                if not request:
                    return
                _, wanted, count = HEADER.unpack(request)
                first, last = max(oldest, wanted), min(end, wanted + count)
                for begin in range(first, last, 30):
                    self.service.sendto(self.packet(begin, min(30, last - begin)), address)

        threading.Thread(target=serve, daemon=True).start()
        return ["--retrans", f"127.0.0.1:{self.service.getsockname()[1]}"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()
        if self.service is not None:
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as waker:
                waker.sendto(b"", self.service.getsockname())
            self.service.close()


@pytest.mark.parametrize("redirection", ["2>/dev/full", "2>&-", "2>&1 >/dev/null | true", "<&- >&- 2>&-"])
def test_standard_streams_that_cannot_be_written_cost_no_line(tmp_path, redirection):
    feed = Feed(tmp_path, interval_ms=2)
    out, status = tmp_path / "out.jsonl", tmp_path / "status"
    words = listen_command(feed, *feed.retrans_args(), "--count", "3000", "--out", out)
    with feed:
        subprocess.run(["bash", "-c", f'{{ "$@"; echo $? >{status}; }} {redirection}', "bash", *words],
                       timeout=120, check=False)
        truth = lines_of_messages(feed)
    written = out.read_text().splitlines()
    assert status.read_text() == "0\n"
    assert len(written) > 2000
    assert written == truth[:len(written)]


def test_feed_started_again_gives_a_new_run_in_output_and_summary(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    out = tmp_path / "out.jsonl"
    receiver = Process(listen_command(feed, *feed.retrans_args(), "--out", out))
    receiver.wait_for_line("joined")
    with receiver, feed:
        feed.wait_for_messages(2000)
        feed.fall_silent()
        feed.process.kill()
        feed.process.wait()
        feed.start()
        receiver.wait_for_line("started again under the same session")
        feed.wait_for_messages(700)
        feed.fall_silent()
        assert receiver.stop() == 1
        truth = lines_of_messages(feed)
    assert out.read_text().splitlines() == truth
    assert [sequence_of(line) for line in truth].count(sequence_of(truth[0])) == 2
    text = "\n".join(receiver.stderr)
    assert re.search(r"run 1: 2\d\d\d messages \(1 to ", text), text
    assert re.search(r"run 2: \d+ messages \(1 to ", text), text
    assert "nothing missing" not in text


def test_feed_started_again_while_nobody_listened_is_found_by_the_last_message(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    out = tmp_path / "out.jsonl"
    receiver = Process(listen_command(feed, *feed.retrans_args(), "--out", out))
    receiver.wait_for_line("joined")
    with receiver, feed:
        feed.wait_for_messages(100)
        last = feed.fall_silent() - 1
        wait_until(lambda: out.exists() and f'"seq":{last},' in out.read_text(), what="the last line")
        feed.process.kill()
        feed.process.wait()
        # The first packets of the new run are dropped: its numbers are past the old run's last one when the
        # receiver gets the next packet.
        feed.args = ["--drop-burst", "1:60"]
        time.sleep(3)   # the silence is what the receiver goes by
        feed.start()
        receiver.wait_for_line("started again under the same session")
        feed.fall_silent()
        assert receiver.stop() == 1
        truth = lines_of_messages(feed)
    written = out.read_text().splitlines()
    second = [index for index, line in enumerate(written) if sequence_of(line) == sequence_of(truth[0])]
    assert len(second) == 2
    assert written[second[1]:] == truth[-len(written[second[1]:]):]


def test_heartbeat_that_falls_back_never_ends_with_nothing_missing():
    with FakeFeed() as fake:
        receiver = Process(listen_command(fake))
        with receiver:
            receiver.wait_for_line("joined")
            fake.send(1, 20)
            fake.send(21, 0)
            fake.send(5, 0)
            time.sleep(0.2)
            assert receiver.stop() == 1
    text = "\n".join(receiver.stderr)
    assert "1 heartbeat fell back" in text and "nothing missing" not in text


@pytest.mark.parametrize("args", [["--out", "/dev/full"], ["--decode", "--out", "-"]])
def test_output_that_cannot_be_written_ends_with_1_and_a_line(tmp_path, args):
    with Feed(tmp_path, interval_ms=2) as feed:
        reader, writer = os.pipe()
        os.close(reader)
        receiver = Process(listen_command(feed, *feed.retrans_args(), *args), stdout=writer)
        os.close(writer)
        assert receiver.wait() == 1
    assert any("write to --out: " in line for line in receiver.stderr), receiver.stderr


def test_closed_pipe_is_noticed_without_a_message():
    with FakeFeed() as fake:
        reader, writer = os.pipe()
        receiver = Process(listen_command(fake, "--out", "-"), stdout=writer)
        os.close(writer)
        receiver.wait_for_line("joined")
        os.close(reader)
        assert receiver.wait() == 1
    assert any("Broken pipe" in line for line in receiver.stderr), receiver.stderr


def test_out_that_is_the_truth_or_the_capture_is_refused(tmp_path):
    with Feed(tmp_path, interval_ms=5) as feed:
        feed.wait_for_messages(200)
        os.link(feed.truth_path, tmp_path / "hard.jsonl")
        os.symlink(feed.truth_path, tmp_path / "soft.jsonl")
        for name in ("truth.jsonl", "hard.jsonl", "soft.jsonl"):
            result = subprocess.run(listen_command(feed, "--out", tmp_path / name, "--seconds", "1"),
                                    capture_output=True, text=True, timeout=60)
            assert result.returncode == 2, result.stderr
            assert "written by another program" in result.stderr
        truth = lines_of_messages(feed)
        assert sequence_of(truth[0]) < 100 and len(truth) > 100
    capture = tmp_path / "feed.pcap"
    capture.write_bytes(struct.pack("<IHHIIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, 1))
    os.link(capture, tmp_path / "same")
    for name in (capture, tmp_path / "same"):
        result = subprocess.run([program("tessel-listen"), "--from-pcap", capture, "--out", name],
                                capture_output=True, text=True, timeout=60)
        assert result.returncode == 2 and "same file" in result.stderr, result.stderr
    assert capture.stat().st_size == 24


def test_truncated_output_gets_no_hole(tmp_path):
    feed = Feed(tmp_path, interval_ms=5)
    out = tmp_path / "out.jsonl"
    with feed, Process(listen_command(feed, *feed.retrans_args(), "--out", out)) as receiver:
        wait_until(lambda: out.exists() and out.stat().st_size > 20_000, what="lines")
        os.truncate(out, 0)
        wait_until(lambda: out.stat().st_size > 2_000, what="more lines")
        assert receiver.stop() == 0
    assert b"\0" not in out.read_bytes()


def test_sighup_ends_it_as_sigterm_does(tmp_path):
    feed = Feed(tmp_path, interval_ms=5)
    out = tmp_path / "out.jsonl"
    with feed, Process(listen_command(feed, *feed.retrans_args(), "--out", out)) as receiver:
        feed.wait_for_messages(300)
        feed.fall_silent()
        assert receiver.stop(signal.SIGHUP) == 0, receiver.stderr
        assert out.read_text().splitlines() == lines_of_messages(feed)


@pytest.mark.parametrize("args", [
    ["--seconds", "1e300"], ["--seconds", "nan"], ["--seconds", "0.0005"], ["--seconds", "-1"],
    ["--seconds", "inf"], ["--seconds", ""], ["--count", "-1"], ["--count", "18446744073709551616"],
    ["--count", ""], ["--from", "18446744073709551616"], ["--from", "-1"], ["--port", "0"], ["--port", ""],
    ["--port", "65536"], ["--mcast", ""], ["--mcast", "0.0.0.0"], ["--mcast", "127.0.0.1"],
    ["--iface", ""], ["--iface", "0.0.0.0"], ["--retrans", ""], ["--retrans", ":25178"],
    ["--retrans", "127.0.0.1:0"], ["--retrans", "0.0.0.0:25178"], ["--retrans", "127.0.0.1:"],
    ["--snapshot", "", "--user", "X"], ["--snapshot", "127.0.0.1:0", "--user", "X"], ["--session", ""],
    ["--out", ""], ["--from-pcap", ""], ["--retries", "-1"], ["--snapshot-timeout", "0"],
    ["--retrans", "x" * 5000], ["--seconds", "1\n2"], ["--" + "x" * 5000],
])
def test_bad_numbers_and_addresses_end_with_2_and_one_short_line(args):
    result = subprocess.run([program("tessel-listen"), *args], capture_output=True, text=True, timeout=60)
    assert result.returncode == 2, result.stderr
    line, end = result.stderr[:-1], result.stderr[-1:]
    assert end == "\n" and "\n" not in line
    assert line.startswith("tessel-listen: ") and len(line) <= 200
    assert args[0][:20] in line


def test_late_start_with_the_history_gone_says_what_is_lost_and_goes_on(tmp_path):
    out = tmp_path / "out.jsonl"
    with FakeFeed() as fake:
        retrans = fake.serve_history(400_001, 500_001)
        receiver = Process(listen_command(fake, *retrans, "--decode", "--out", out, "--count", "100030"))
        with receiver:
            receiver.wait_for_line("joined")
            begin = time.monotonic()
            fake.send(500_001, 30)
            line = receiver.wait_for_line("no longer in the history")
            assert receiver.wait() == 1
            assert time.monotonic() - begin < 20
    assert "400000 messages from 1 on" in line
    assert any("lost 400000 messages from 1 on" in text for text in receiver.stderr), receiver.stderr
    numbers = [int(re.match(r'\{"seq":(\d+)', text).group(1)) for text in out.read_text().splitlines()]
    assert numbers == list(range(400_001, 500_031))


@pytest.mark.parametrize("oldest", [400_001, 500_001])
def test_time_limit_holds_while_the_history_is_gone(oldest):
    with FakeFeed() as fake:
        retrans = fake.serve_history(oldest, 500_001)
        receiver = Process(listen_command(fake, *retrans, "--timeout-ms", "30000", "--seconds", "2"))
        with receiver:
            receiver.wait_for_line("joined")
            begin = time.monotonic()
            fake.send(500_001, 30)
            assert receiver.wait() == 1
            assert 1.5 < time.monotonic() - begin < 10


def test_second_sigint_right_after_the_first_ends_it():
    with FakeFeed() as fake, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 0))
        service = f"127.0.0.1:{silent.getsockname()[1]}"
        receiver = Process(listen_command(fake, "--retrans", service, "--timeout-ms", "600000"))
        with receiver:
            receiver.wait_for_line("joined")
            fake.send(50, 1)
            silent.settimeout(60)
            silent.recv(64)
            receiver.process.send_signal(signal.SIGINT)
            time.sleep(0.01)
            receiver.process.send_signal(signal.SIGINT)
            assert receiver.wait(20) == 1


def test_two_sigints_end_it_when_blocked_on_a_pipe_that_nobody_reads(tmp_path):
    with Feed(tmp_path, interval_ms=0) as feed:
        reader, writer = os.pipe()
        receiver = Process(listen_command(feed, *feed.retrans_args(), "--decode"), stdout=writer)
        os.close(writer)
        with receiver:
            receiver.wait_for_line("joined")

            def blocked():
                return "pipe_write" in open(f"/proc/{receiver.pid}/wchan").read() \
                    or open(f"/proc/{receiver.pid}/syscall").read().startswith("1 ")

            wait_until(blocked, what="a full pipe")
            receiver.process.send_signal(signal.SIGINT)
            time.sleep(0.1)
            assert receiver.running()
            receiver.process.send_signal(signal.SIGINT)
            assert receiver.wait(30) == 1
        os.close(reader)
    assert any("interrupted" in line for line in receiver.stderr), receiver.stderr


@pytest.mark.parametrize("behavior", ["silent", "heartbeats", "logged in"])
def test_snapshot_service_that_stalls_is_reported_and_left(behavior):
    with FakeFeed() as fake, socket.create_server(("127.0.0.1", 0)) as server:
        ended = threading.Event()

        def serve():
            client, _ = server.accept()
            with client:
                if behavior == "logged in":
                    client.sendall(b"\0\x1fA" + b"UTPBENCH01" + b"1".rjust(20))
                while not ended.wait(0.2):
                    if behavior != "silent":
                        try:
                            client.sendall(b"\0\1H")
                        except OSError:
                            return

        thread = threading.Thread(target=serve, daemon=True)
        thread.start()
        receiver = Process(listen_command(fake, "--snapshot", f"127.0.0.1:{server.getsockname()[1]}",
                                          "--user", "X", "--snapshot-timeout", "7"))
        with receiver:
            receiver.wait_for_line("joined")
            begin = time.monotonic()
            receiver.wait_for_line("waiting for the " + ("spin" if behavior == "logged in" else "reply"))
            assert 4 < time.monotonic() - begin
            assert receiver.wait() == 1
            assert 6 < time.monotonic() - begin
        ended.set()
        thread.join(10)
    assert any("waited 7 s for" in line for line in receiver.stderr), receiver.stderr
