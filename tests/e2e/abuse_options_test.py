"""Options with extreme values: the feed starts and keeps running, or says why it cannot."""

import json
import math
import re
import socket

import pytest
from feed import Feed, Process, program, wait_until
from mold import Listener
from soup import SoupClient, letters
from time_scale import scaled
from vitals import longest_pause, peak_resident_bytes

# Of a feed with 8,000 instruments that ticks ten times a second. Measured: a pause of 0.23 s,
# 53 MB (66 MB with the sanitizers). The limits leave room for a loaded machine and a slower build.
PAUSE_MAX_S = 5.0
PEAK_BYTES_MAX = 200 * 1024 * 1024

# What a price may be at most: more cents than this are not counted.
PRICE_MAX = 1e10


def hear_all(tmp_path, messages, *args, **options):
    """Runs a feed with these options for this many messages and a receiver beside it. The receiver's lines
    are those of the truth log, which is returned parsed."""
    feed = Feed(tmp_path, *args, interval_ms=5, **options)
    out = tmp_path / "heard.jsonl"
    receiver = Process([program("tessel-listen"), *feed.receiver_args(), *feed.retrans_args(), "--out", out])
    with receiver:
        receiver.wait_for_line("joined")
        with feed:
            feed.wait_for_messages(messages)
            feed.fall_silent()
            truth = feed.truth_lines()
            assert receiver.stop() == 0, receiver.stderr
        assert feed.exit_code == 0
    assert out.read_text().splitlines() == truth
    assert len(truth) > messages / 2

    def refuse(word):
        raise AssertionError(f"{word} in the truth log")
    return [json.loads(line, parse_constant=refuse) for line in truth]


def prices_of(line):
    for member in ("bid", "ask"):
        yield from (price for price, _ in line.get(member, []))
    if "trade" in line:
        yield line["trade"][0]


def test_prices_that_are_no_prices(tmp_path):
    symbols = {"NAN": "nan", "INF": "inf", "MINF": "-inf", "HUGE": "1e300", "TINY": "1e-300", "NULL": "0",
               "MINUS": "-190", "WELL": "190"}
    truth = hear_all(tmp_path, 2000, symbols=",".join(f"{name}:{price}" for name, price in symbols.items()),
                     scenario="trf_every=3,cancel_every=5,correct_every=7,band_every=1,asof_every=9")
    quoted = {name: [line for line in truth if line.get("symbol") == name and "nbbo" in line]
              for name in symbols}
    assert all(len(lines) > 10 for lines in quoted.values())
    for line in truth:
        assert all(math.isfinite(price) and abs(price) <= PRICE_MAX + 1 for price in prices_of(line)), line
    # The one among them that is well stays so.
    assert all(180 < price < 200 for line in quoted["WELL"] for price in prices_of(line))


def test_price_that_is_no_number_ends_the_start(tmp_path):
    feed = Feed(tmp_path, symbols="AAPL:190.00,MSFT:abc")
    with Process(feed.command(), env=feed.environment()) as child:
        assert child.wait() == 2
        assert child.stderr[-1] == "tessel: --symbols: stod: not a number: 'abc'"
    assert not any("UQDF+UTDF" in line for line in child.stderr)


@pytest.mark.parametrize("step", ["1e9", "nan", "-1e9", "inf"])
def test_step_that_throws_prices_about(tmp_path, step):
    truth = hear_all(tmp_path, 800, "--step-bps", step,
                     scenario="trf_every=3,cancel_every=5,correct_every=7,band_every=1,asof_every=9")
    for line in truth:
        assert all(math.isfinite(price) and abs(price) <= PRICE_MAX + 1 for price in prices_of(line)), line


def test_60_participants(tmp_path):
    letters_used = [chr(code) for code in range(ord("!"), ord("!") + 62) if chr(code) not in '"\\'][:60]
    truth = hear_all(tmp_path, 4000, participants="".join(letters_used),
                     symbols="AAPL:190,IBM:90,MSFT:410,BRK:700",
                     scenario="halt_after=1,halt_secs=1,band_every=1,cancel_every=3")
    sizes = [line for line in truth if "nbbo" in line and line["bid"]]
    assert len(sizes) > 1000
    assert all(len(line["bid"]) <= 10 and len(line["ask"]) <= 10 for line in sizes)


def test_8000_symbols(tmp_path, capsys, record_property):
    names = [f"S{number:04d}" for number in range(8000)]
    feed = Feed(tmp_path, "--quiet", interval_ms=100, truth=False,
                symbols=",".join(f"{name}:{10 + number % 900}" for number, name in enumerate(names)))
    with Listener(feed) as listener:
        with feed:
            feed.wait_for_messages(200_000)
            with SoupClient(feed.snapshot_port) as client:
                _, spin = client.log_in()
            peak = peak_resident_bytes(feed.pid)
        times = [when for when, packet in listener.packets()]
    assert feed.exit_code == 0
    # Each instrument has its entry in the directory.
    assert sum(letters(message)[:2] == "AB" for message in spin) == 8000
    pause = longest_pause(times)
    record_property("longest_pause_s", round(pause, 3))
    record_property("peak_bytes", peak)
    with capsys.disabled():
        print(f"\n8,000 symbols: longest pause of the feed {pause:.3f} s, peak memory {peak / 1e6:.0f} MB")
    assert pause < PAUSE_MAX_S
    assert peak < PEAK_BYTES_MAX


@pytest.mark.parametrize("option,value", [("--mcast", "not-an-address"), ("--mcast", ""),
                                          ("--mcast", "300.1.2.3"), ("--mcast", "::1"),
                                          ("--iface", "eth0"), ("--iface", "9.9.9.9.9")])
def test_group_or_interface_that_does_not_parse_leaves_a_feed_that_runs(tmp_path, option, value):
    with Feed(tmp_path, option, value, interval_ms=10) as feed:
        feed.wait_for_messages(200)
        assert feed.control("band AAPL") == "ok band AAPL"
        with SoupClient(feed.snapshot_port) as client:
            _, spin = client.log_in()
        assert letters(spin[-1]) == "ASE "
        assert len(feed.truth()) > 100
    assert feed.exit_code == 0


def taken(port, kind):
    """A socket of another program that has the port for itself."""
    sock = socket.socket(socket.AF_INET, kind)
    sock.bind(("", port))
    if kind == socket.SOCK_STREAM:
        sock.listen(1)
    return sock


def test_snapshot_port_taken_ends_the_start(tmp_path):
    feed = Feed(tmp_path)
    with taken(feed.snapshot_port, socket.SOCK_STREAM):
        with Process(feed.command(), env=feed.environment()) as child:
            assert child.wait() == 1
            assert child.stderr[-1] == (f"tessel: cannot listen on Snap-Shot port {feed.snapshot_port}: "
                                        "Address already in use")


def test_control_port_taken_leaves_a_feed_without_one(tmp_path):
    feed = Feed(tmp_path, interval_ms=10)
    with taken(feed.control_port, socket.SOCK_DGRAM) as other, Listener(feed) as listener:
        with feed:
            wait_until(lambda: len(listener.data()) > 20, what="packets")
        assert "tessel: control port: Address already in use" in feed.stderr
        assert not any(line.startswith("bench: control on") for line in feed.stderr)
        other.setblocking(False)
        with pytest.raises(BlockingIOError):
            other.recv(1)
    assert feed.exit_code == 0


def test_retransmission_port_taken_leaves_requests_unanswered(tmp_path):
    feed = Feed(tmp_path, interval_ms=10)
    with taken(feed.retrans_port, socket.SOCK_DGRAM) as other:
        with feed:
            feed.wait_for_messages(100)
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
                client.sendto(b"hello", ("127.0.0.1", feed.retrans_port))
            other.settimeout(scaled(30))
            assert other.recv(100) == b"hello"
            feed.wait_for_messages(feed.next_seq() + 50)
    assert feed.exit_code == 0


def test_every_port_the_same_number_works_where_the_protocols_differ(tmp_path):
    """The Snap-Shot service is TCP, the retransmission service UDP: one number serves both."""
    feed = Feed(tmp_path, interval_ms=10)
    feed.snapshot_port = feed.retrans_port
    with feed:
        feed.wait_for_messages(100)
        with SoupClient(feed.snapshot_port) as client:
            _, spin = client.log_in()
        assert letters(spin[-1]) == "ASE "
    assert feed.exit_code == 0
    assert re.search(r"retrans (\d+)\).*Snap-Shot/SoupBinTCP :\1 ", "\n".join(feed.stderr))
