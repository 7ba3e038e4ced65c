"""The relay beside a feed, in front of its services, and from capture to capture."""

import json
import os
import re
import signal
import socket
import struct
import subprocess
import time
from pathlib import Path

import pytest
from feed import Feed, Process, free_port, program, unique_group, wait_until
from time_scale import scaled

PAGE = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2])) / "docs" / "relay.md"
COUNTERS = ["received", "sent", "dropped", "duplicated", "reordered", "corrupted", "truncated", "foreign",
            "queue_drops"]


def start_relay(feed, *args):
    """A relay of the feed that has joined."""
    child = Process([program("tessel-relay"), "--mcast", feed.group, "--port", feed.port,
                     "--iface", feed.iface, *args])
    child.wait_for_line("joined")
    return child


def counters_of(lines, name):
    text = [line for line in lines if f"line {name}: received=" in line][-1]
    numbers = dict(re.findall(r"(\w+)=(\d+)", text))
    assert list(numbers) == COUNTERS
    return {key: int(value) for key, value in numbers.items()}


def ask(port, text):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.settimeout(scaled(30))
        client.connect(("127.0.0.1", port))
        client.send(text.encode())
        return client.recv(65536).decode().rstrip("\n")


def listen(feed, out, group, port, *args):
    child = Process([program("tessel-listen"), "--mcast", group, "--port", port, "--iface", feed.iface,
                     "--session", feed.session, "--out", out, *args])
    child.wait_for_line("joined")
    return child


def last_line_arrives(feed, *outputs):
    feed.fall_silent()
    last = feed.truth_lines()[-1]
    for out in outputs:
        wait_until(lambda path=out: last in path.read_text(), what=f"the last line in {out.name}")


def test_clean_lines_pass_every_packet_on(tmp_path):
    groups = [(unique_group(), free_port()) for _ in range(2)]
    outs = [tmp_path / "a.jsonl", tmp_path / "b.jsonl"]
    feed = Feed(tmp_path, interval_ms=5)
    lines = [word for name, (group, port) in zip("AB", groups)
             for word in ("--line", f"{name}={group}:{port}")]
    with start_relay(feed, *lines) as relay:
        listeners = [listen(feed, out, *where) for out, where in zip(outs, groups)]
        with feed.start():
            feed.wait_for_messages(2000)
            last_line_arrives(feed, *outs)
            assert [listener.stop() for listener in listeners] == [0, 0]
            for out in outs:
                assert out.read_text() == feed.truth_path.read_text()
        assert relay.stop() == 0
        for name in "AB":
            numbers = counters_of(relay.stderr, name)
            assert numbers["received"] == numbers["sent"] > 0
            assert sum(numbers.values()) == 2 * numbers["sent"]


def test_lossy_line_is_logged_counted_and_recovered(tmp_path):
    group, port = unique_group(), free_port()
    out = tmp_path / "out.jsonl"
    feed = Feed(tmp_path, interval_ms=5)
    line = f"A={group}:{port},drop=10%,dup=5%,reorder=5%:3,foreign=5%,payload=600"
    with start_relay(feed, "--line", line, "--seed", "3") as relay, feed.start(), \
            listen(feed, out, group, port, *feed.retrans_args(), "--from", "1") as listener:
        feed.wait_for_messages(3000)
        last_line_arrives(feed, out)
        assert listener.stop() == 0
        assert relay.stop() == 0
        numbers = counters_of(relay.stderr, "A")
        logged = [re.match(r"tessel fault: line A (\w+(?: full)?) seq \d+ \(", each) for each in relay.stderr]
        kinds = [each.group(1) for each in logged if each]
        for kind in ("dropped", "duplicated", "reordered", "foreign"):
            assert kinds.count(kind) == numbers[kind] > 0
    assert out.read_text() == feed.truth_path.read_text()


def test_impairments_change_while_it_runs(tmp_path):
    port = free_port()
    feed = Feed(tmp_path, interval_ms=5)
    line = f"A={unique_group()}:{free_port()}"
    with start_relay(feed, "--line", line, "--control-port", port) as relay, feed.start():
        assert ask(port, "line A drop=100%") == "ok line A drop=100%"
        wait_until(lambda: counters_of(ask(port, "stats").splitlines(), "A")["dropped"] > 5)
        assert ask(port, "line A drop=0%").startswith("ok ")
        dropped = counters_of(ask(port, "stats").splitlines(), "A")["dropped"]
        sent = counters_of(ask(port, "stats").splitlines(), "A")["sent"]
        wait_until(lambda: counters_of(ask(port, "stats").splitlines(), "A")["sent"] > sent + 5)
        assert counters_of(ask(port, "stats").splitlines(), "A")["dropped"] == dropped
        assert ask(port, "line B drop=1%") == "err unknown line 'B'"
        assert ask(port, "line A drop=5") == "err drop: '5' is no percentage: write 0% to 100%"
        assert ask(port, "frobnicate").startswith("err ")
        assert ask(port, "x" * 600).startswith("err ")
        assert ask(port, "stop") == "ok stopping"
        assert relay.wait() == 0


def test_end_of_session_goes_out_on_every_line(tmp_path):
    group, port = unique_group(), free_port()
    feed = Feed(tmp_path)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as tap, \
            start_relay(feed, "--line", f"A={group}:{port}", "--end-of-session") as relay, feed.start():
        tap.bind((group, port))
        tap.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                       socket.inet_aton(group) + socket.inet_aton(feed.iface))
        tap.settimeout(scaled(30))
        next_number = feed.fall_silent()
        relay.process.send_signal(signal.SIGTERM)
        while True:
            packet = tap.recv(2048)
            number, count = struct.unpack_from("!QH", packet, 10)
            if count == 0xFFFF:
                break
        assert number == next_number
        assert relay.wait() == 0


def test_retransmission_proxy_passes_loses_and_limits(tmp_path):
    services = [free_port() for _ in range(3)]
    with Feed(tmp_path, interval_ms=5) as feed:
        upstream = f"127.0.0.1:{feed.retrans_port}"
        with start_relay(feed, "--line", f"A={unique_group()}:{free_port()}",
                         "--retrans", f"127.0.0.1:{services[0]}={upstream}",
                         "--retrans", f"127.0.0.1:{services[1]}={upstream},drop=100%",
                         "--retrans", f"127.0.0.1:{services[2]}={upstream},limit=1/s") as relay:
            feed.wait_for_messages(50)
            request = feed.session.encode().ljust(10) + struct.pack("!QH", 1, 1)
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
                client.settimeout(scaled(10))
                client.sendto(request, ("127.0.0.1", services[0]))
                assert struct.unpack_from("!QH", client.recv(2048), 10) == (1, 1)
                for _ in range(20):
                    client.sendto(request, ("127.0.0.1", services[2]))
                assert struct.unpack_from("!QH", client.recv(2048), 10) == (1, 1)
                client.sendto(request, ("127.0.0.1", services[1]))
                # An answer to the request above would be there before that to this one.
                client.sendto(request, ("127.0.0.1", services[0]))
                client.recv(2048)
                wait_until(lambda: True)
            assert relay.stop() == 0
            reports = [line for line in relay.stderr if "retransmission:" in line]
            numbers = [dict(re.findall(r"(\w+)=(\d+)", line)) for line in reports]
            assert [each["dropped"] for each in numbers] == ["0", "1", "0"]
            assert int(numbers[2]["limited"]) >= 18


def test_snapshot_proxy_passes_a_whole_spin_and_cuts_one(tmp_path):
    whole, cut = free_port(), free_port()
    with Feed(tmp_path, interval_ms=20) as feed:
        upstream = f"127.0.0.1:{feed.snapshot_port}"
        with start_relay(feed, "--line", f"A={unique_group()}:{free_port()}",
                         "--snapshot", f"127.0.0.1:{whole}={upstream},delay=5ms,rate=10Mbit",
                         "--snapshot", f"127.0.0.1:{cut}={upstream},close=500") as relay:
            out = tmp_path / "late.jsonl"
            command = [program("tessel-listen"), *feed.receiver_args(), *feed.retrans_args(), "--count", "50",
                       "--user", "LATE", "--out", out]
            done = subprocess.run([*command, "--snapshot", f"127.0.0.1:{whole}"], capture_output=True,
                                  text=True, timeout=scaled(60), check=False)
            assert done.returncode == 0, done.stderr
            with socket.create_connection(("127.0.0.1", cut), scaled(30)) as client:
                login = b"L" + b"ME".ljust(6) + b" " * 10 + b" " * 10 + b"0".rjust(20)
                client.sendall(struct.pack("!H", len(login)) + login)
                received = b""
                with pytest.raises(ConnectionResetError):
                    while True:
                        received += client.recv(4096)
            assert len(received) <= 500
            assert relay.stop() == 0
            assert any("connections=1 refused=0 cut=1" in line for line in relay.stderr)


def make_capture(folder, seconds):
    """A capture of a feed, and its truth log."""
    pcap, truth = folder / "in.pcap", folder / "truth.jsonl"
    done = subprocess.run([program("tessel-capture"), "--duration", f"{seconds}s", "--interval-ms", "50",
                           "--pcap", pcap, "--truth-out", truth, "--start", "2026-01-05T09:30:00-05:00"],
                          capture_output=True, text=True, timeout=scaled(120), check=False)
    assert done.returncode == 0, done.stderr
    return pcap, truth


def offline(pcap, *args):
    done = subprocess.run([program("tessel-relay"), "--from-pcap", pcap, *args], capture_output=True,
                          text=True, timeout=scaled(120), check=False)
    assert done.returncode == 0, done.stderr
    return done.stderr.splitlines()


def test_an_hour_of_impairments_is_the_same_twice_and_another_with_another_seed(tmp_path):
    pcap, _ = make_capture(tmp_path, 3600)
    lines = ("drop=5%,delay=1ms..5ms",
             "burst=1%:20%,reorder=5%:3,dup=2%,bits=1%,truncate=1%,foreign=1%,payload=700")

    def run(name, seed):
        files = [tmp_path / f"{name}-{number}.pcap" for number in range(2)]
        words = [word for number, (file, line) in enumerate(zip(files, lines))
                 for word in ("--line", f"L{number}={file},{line}")]
        said = offline(pcap, *words, "--seed", seed)
        return [file.read_bytes() for file in files], said
    first, said = run("first", "3")
    again, said_again = run("again", "3")
    other, _ = run("other", "4")
    assert first == again and said == said_again
    assert first[0] != other[0] and first[1] != other[1]
    numbers = counters_of(said, "L0")
    assert abs(numbers["dropped"] / numbers["received"] - 0.05) < 0.01


def test_clean_replay_into_a_file_is_judged_as_the_capture_is(tmp_path):
    pcap, truth = make_capture(tmp_path, 30)
    out = tmp_path / "out.jsonl"
    offline(pcap, "--line", f"A={tmp_path}/copy.pcap.zst,delay=3ms,payload=700")
    done = subprocess.run([program("tessel-listen"), "--from-pcap", tmp_path / "copy.pcap.zst", "--out", out],
                          capture_output=True, text=True, timeout=scaled(60), check=False)
    assert done.returncode == 0, done.stderr
    assert out.read_text() == truth.read_text()


def test_replay_on_the_clock_keeps_its_time_and_says_how_well(tmp_path):
    pcap, truth = make_capture(tmp_path, 20)
    group, port = unique_group(), free_port()
    out = tmp_path / "out.jsonl"

    class Addresses:
        iface = "127.0.0.1"
        session = "UTPBENCH01"
    with listen(Addresses, out, group, port, "--from", "1") as listener:
        begin = time.monotonic()
        done = subprocess.run([program("tessel-relay"), "--from-pcap", pcap, "--speed", "10", "--line",
                               f"A={group}:{port}"], capture_output=True, text=True, timeout=scaled(60),
                              check=False)
        seconds = time.monotonic() - begin
        assert done.returncode == 0, done.stderr
        assert 1.8 < seconds < scaled(20)
        assert re.search(r"timing: [\d.]+ % within 10 us, [\d.]+ % within 100 us, [\d.]+ % within 1 ms",
                         done.stderr)
        last = truth.read_text().splitlines()[-1]
        wait_until(lambda: last in out.read_text())
        assert listener.stop() == 0
    assert out.read_text() == truth.read_text()


def test_rate_sets_the_pace_of_messages(tmp_path):
    pcap, truth = make_capture(tmp_path, 60)
    messages = json.loads(truth.read_text().splitlines()[-1])["seq"]
    rate = messages  # the whole in a second
    begin = time.monotonic()
    offline(pcap, "--rate", str(rate), "--line", f"A={unique_group()}:{free_port()}")
    assert 0.9 < time.monotonic() - begin < scaled(20)


BAD = [
    (["--line", "A"], "is not NAME=DEST"),
    ([], "name at least one output"),
    (["--line", "A=1.2.3.4:99", "--line", "A=1.2.3.4:98"], "there twice"),
    (["--line", "A=1.2.3.4:99,drop=5"], "no percentage"),
    (["--line", "A=1.2.3.4:99,dorp=5%"], "did you mean 'drop'"),
    (["--line", "A=1.2.3.4:0"], "port"),
    (["--line", "A=239.1.1.1:99@nowhere"], "no IPv4 address"),
    (["--line", "A=1.2.3.4:99@127.0.0.1"], "only a multicast group"),
    (["--line", "A=1.2.3.4:99", "--mcast", "10.0.0.1"], "no multicast group"),
    (["--line", "A=1.2.3.4:99", "--retrans", "127.0.0.1:1"], "LISTEN=UPSTREAM"),
    (["--line", "A=1.2.3.4:99", "--retrans", "127.0.0.1:1=127.0.0.1:2,limit=5"], "write 50/s"),
    (["--line", "A=1.2.3.4:99", "--speed", "2"], "for a replay"),
    (["--line", "A=1.2.3.4:99", "--from-pcap", "x", "--ramp", "5"], "no ramp"),
    (["--frobnicate"], "frobnicate"),
]


@pytest.mark.parametrize("args, text", BAD, ids=[text for _, text in BAD])
def test_bad_command_line_ends_with_2_and_says_what_would_be_right(args, text):
    done = subprocess.run([program("tessel-relay"), *args], capture_output=True, text=True,
                          timeout=scaled(60), check=False)
    assert done.returncode == 2
    assert text in done.stderr and done.stderr.startswith("tessel-relay: ")
    assert len(done.stderr.splitlines()) == 1 and len(done.stderr) <= 220


def test_capture_that_is_not_there_ends_with_1(tmp_path):
    done = subprocess.run([program("tessel-relay"), "--from-pcap", tmp_path / "none.pcap", "--line",
                           f"A={tmp_path}/out.pcap"], capture_output=True, text=True, timeout=scaled(60),
                          check=False)
    assert done.returncode == 1 and "none.pcap" in done.stderr


def test_every_option_of_the_page_is_one_of_the_program():
    named = set(re.findall(r"--[a-z][a-z-]+", PAGE.read_text()))
    helped = subprocess.run([program("tessel-relay"), "--help"], capture_output=True, text=True,
                            timeout=scaled(60), check=True).stdout
    assert named <= set(re.findall(r"--[a-z-]+", helped)) and len(named) > 10


def test_tesselctl_passes_words_on(tmp_path):
    port = free_port()
    feed = Feed(tmp_path)
    command = [program("tesselctl"), "relay", "--control", f"127.0.0.1:{port}"]

    def run(*words):
        return subprocess.run([*command, *words], capture_output=True, text=True, timeout=scaled(60),
                              check=False)
    with start_relay(feed, "--line", f"A={unique_group()}:{free_port()}", "--control-port", port) as relay:
        done = run("line", "A", "drop=5%")
        assert (done.returncode, done.stdout) == (0, "ok line A drop=5%\n")
        assert run("line", "B", "drop=5%").returncode == 1
        assert run("stats").stdout.startswith("ok line A: received=")
        assert run("stop").returncode == 0
        assert relay.wait() == 0
    assert run("--timeout-ms", "300", "stats").returncode == 3
