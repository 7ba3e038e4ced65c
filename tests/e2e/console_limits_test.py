"""What strangers and slow clients can do to tessel-console: very little."""

import json
import os
import signal
import socket
import time
from pathlib import Path

import pytest
from console import Console
from feed import Feed, wait_until
from time_scale import scaled
from vitals import descriptors, resident_bytes

STREAMS = 16
# A sanitizer keeps what was freed, up to 256 MB, and more beside each block.
SANITIZED = "TESSEL_SANITIZE:BOOL=ON" in (Path(os.environ["TESSEL_BUILD"]) / "CMakeCache.txt").read_text()
GROWTH_MAX = (600 if SANITIZED else 64) << 20


@pytest.fixture(scope="module", name="feed")
def _feed(tmp_path_factory):
    with Feed(tmp_path_factory.mktemp("feed"), truth=False,
              symbols=",".join(f"SYM{number:04}:100" for number in range(600))) as feed:
        yield feed


@pytest.fixture(name="console")
def _console(feed):
    with Console(feed) as console:
        console.wait_for(lambda state: state["total"] == 600)
        yield console


def test_seventeenth_stream_gets_503_and_others_are_served(console):
    streams = [console.stream("?limit=1") for _ in range(STREAMS)]
    status, headers, _ = console.request("GET", "/api/events")
    assert status == 503 and headers["Retry-After"]
    assert console.state()["total"] == 600
    assert console.command("mark busy")[0] == 200
    for stream in streams:
        stream.wait_for("state")
    streams.pop().close()
    wait_until(lambda: reopened(console), what="a free place")
    for stream in streams:
        stream.close()


def reopened(console):
    connection, response = console.open("GET", "/api/events?limit=1")
    response.close()
    connection.close()
    return response.status == 200


def test_stream_sends_the_state_four_times_a_second(console):
    with console.stream("?limit=1") as stream:
        stream.wait_for("state")
        begin = time.monotonic()
        for _ in range(12):
            stream.wait_for("state")
        elapsed = time.monotonic() - begin
    assert 2.4 < elapsed < scaled(6)


def test_client_that_does_not_read_is_dropped_and_nobody_waits(console):
    with console.stream("?limit=1") as stream:
        stream.wait_for("state")
        before = descriptors(console.pid)
        slow = socket.socket()
        slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        slow.settimeout(scaled(60))
        slow.connect(("127.0.0.1", console.port))
        slow.send(console.head("GET /api/events?limit=500") + b"\r\n")
        wait_until(lambda: descriptors(console.pid) > before, what="the slow client's stream")
        begin = time.monotonic()
        for _ in range(20):
            stream.wait_for("state")
        assert time.monotonic() - begin < scaled(15)
        # The buffers between both take a few steps of 80 kB; then it is given up.
        wait_until(lambda: descriptors(console.pid) == before, 120, "the slow client's end")
        slow.close()


def test_clients_that_send_a_byte_at_a_time_are_given_up(console):
    slow = [console.socket() for _ in range(60)]
    begin = time.monotonic()
    for each in slow:
        each.send(b"GET /api/state HTTP/1.1\r\nHost: ")
    assert console.state()["total"] == 600
    alive = list(slow)
    while alive and time.monotonic() - begin < scaled(40):
        for each in list(alive):
            try:
                each.send(b"x")
            except OSError:
                alive.remove(each)
        time.sleep(0.2)
    assert not alive
    assert time.monotonic() - begin > 2
    for each in slow:
        each.close()


def test_head_without_an_end_is_cut_off(console):
    for piece in (b"A" * 65536, b"X: y\r\n" * 10000, b"Cookie: a=b\r\n" * 5000):
        with console.socket() as flood:
            try:
                flood.sendall(console.head("GET /api/state") + piece)
                answer = flood.recv(4096)
                assert answer.startswith(b"HTTP/1.1 4") or answer == b""
            except ConnectionError:
                pass
    assert console.state()["total"] == 600


def test_many_connections_neither_grow_nor_stall_it(console):
    console.state()
    before = resident_bytes(console.pid)
    for _ in range(3):
        idle = []
        for _ in range(300):
            try:
                idle.append(console.socket())
            except OSError:
                break
        for each in idle:
            each.close()
    wait_until(lambda: console.get("/healthz", token=False)[0] == 200, what="an answer")
    for _ in range(50):
        console.get("/api/state?limit=500")
    assert resident_bytes(console.pid) < before + GROWTH_MAX


def test_rubbish_is_answered_or_closed(console):
    for rubbish in (b"\0" * 100 + b"\r\n\r\n", b"GET\r\n\r\n", b"\x16\x03\x01\x02\x00\x01",
                    b"GET / HTTP/9.9\r\n\r\n", b"\r\n" * 50,
                    b"POST /api/command HTTP/1.1\r\nContent-Length: 9\r\n\r\n{}"):
        with console.socket() as client:
            client.sendall(rubbish)
            client.shutdown(socket.SHUT_WR)
            answer = client.recv(4096)
            assert answer == b"" or answer.startswith(b"HTTP/1.1 4"), answer
    assert console.state()["total"] == 600


def test_hostile_symbols_and_labels_stay_text(tmp_path):
    with Feed(tmp_path, symbols='<b>"x:10,</i>&\':20,\x1b[31m:30,\\u0041:40', truth=False) as feed, \
            Console(feed) as console:
        state = console.wait_for(lambda state: state["total"] == 4)
        assert {row["symbol"] for row in state["instruments"]} == {'<b>"x', "</i>&'", "\x1b[31m", "\\u0041"}
        assert console.get("/api/instruments/%3Cb%3E%22x")[0] == 200
        assert console.get("/api/instruments/%3C%2Fi%3E%26%27")[0] == 200
        assert console.command("mark <script>alert(1)</script>")[0] == 200
        assert console.state()["marks"][-1]["text"] == "mark <script>alert(1)</script>"
        status, _, text = console.request("GET", "/api/state")
        assert status == 200 and "\x1b" not in text and json.loads(text)


def test_ends_with_streams_and_half_requests_open(feed):
    for number in (signal.SIGINT, signal.SIGTERM):
        with Console(feed) as console:
            streams = [console.stream() for _ in range(4)]
            half = console.socket()
            half.send(b"GET / HT")
            for stream in streams:
                stream.wait_for("state")
            begin = time.monotonic()
            assert console.stop(number) == 0
            assert time.monotonic() - begin < scaled(5)
            half.close()
            for stream in streams:
                stream.close()
