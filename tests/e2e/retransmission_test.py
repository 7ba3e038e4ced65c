"""The retransmission service of a running feed: where its replies come from, and what a flood of requests
cannot hold up."""

import signal
import socket
import threading

import pytest
from feed import Feed, wait_until
from mold import HEADER, Listener, is_heartbeat, split_packet

# The start of day of this many instruments is more messages than one request can ask for.
SYMBOLS = ",".join(f"S{number:04d}:100" for number in range(8000))


@pytest.mark.parametrize("address", ["127.0.0.1", "127.0.0.2", "127.1.2.3"])
def test_connected_requester_receives_replies_from_the_address_that_it_asked(tmp_path, address):
    with Feed(tmp_path, interval_ms=20) as feed:
        feed.wait_for_messages(50)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
            client.connect((address, feed.retrans_port))  # receives from there only

            def ask():
                client.send(HEADER.pack(feed.session.encode().ljust(10), 7, 3))
                client.settimeout(1)
                try:
                    return client.recv(2048)
                except socket.timeout:
                    return None
            packet = wait_until(ask, seconds=10, what=f"a reply from {address}")
        _, first, messages = split_packet(packet)
        assert (first, len(messages)) == (7, 3)
    assert feed.exit_code == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_endless_requests_for_65535_messages_stop_nothing_else(tmp_path, number):
    feed = Feed(tmp_path, "--quiet", symbols=SYMBOLS, interval_ms=-1, truth=False, book=True)
    flooding = threading.Event()

    def flood():
        """Always has more requests waiting than one call answers."""
        request = HEADER.pack(feed.session.encode(), 1, 65535)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
            while flooding.is_set():
                try:
                    client.sendto(request, ("127.0.0.1", feed.retrans_port))
                except OSError:
                    pass
    flooder = threading.Thread(target=flood)
    with Listener(feed) as listener, feed:
        flooding.set()
        flooder.start()
        try:
            wait_until(lambda: int(feed.control("stats").split("next_seq=")[1].split()[0]) > 65536,
                       what="an answer on the control channel")
            heartbeats = len(listener.heartbeats())
            wait_until(lambda: len(listener.heartbeats()) >= heartbeats + 2, what="two heartbeats")
            written = feed.book_path.stat().st_mtime_ns
            wait_until(lambda: feed.book_path.stat().st_mtime_ns > written, what="a new book")
            ticks = feed.next_seq()
            assert feed.control("rate 100") == "ok rate 100"
            wait_until(lambda: feed.next_seq() > ticks + 8000, what="ticks")
            assert any(not is_heartbeat(packet) for _, packet in listener.packets())
            assert feed.stop(number) == 0
        finally:
            flooding.clear()
            flooder.join()
    assert feed.stderr[-1] == "[tessel] stopped"
