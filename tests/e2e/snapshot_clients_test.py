"""Hostile and unlucky clients of the Snap-Shot service: the feed lives, ticks, and keeps its memory."""

import json
import os
import random
import socket
import subprocess
import time

import pytest
from feed import Feed, wait_until
from soup import SoupClient, end_of_snapshot, letters, login_request, packet
from time_scale import scaled

# What one hostile client may add to the resident memory. A connection keeps at most 256 KiB of input; the
# rest is the history of what the feed published meanwhile and the allocator's slack.
MEMORY_GROWTH_MAX = 16 * 1024 * 1024


def resident_bytes(feed):
    with open(f"/proc/{feed.pid}/status", encoding="ascii") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) * 1024
    raise AssertionError("no VmRSS")


def cpu_seconds(feed):
    with open(f"/proc/{feed.pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / 100


def descriptors(feed):
    return len(os.listdir(f"/proc/{feed.pid}/fd"))


def assert_goes_on(feed):
    """It ticks and serves a late joiner."""
    number = feed.next_seq()
    feed.wait_for_messages(number + 10)
    with SoupClient(feed.snapshot_port) as client:
        accepted, messages = client.log_in("AFTER")
        assert accepted == feed.session.encode() + b"1".ljust(20)
        assert letters(messages[0]) == "CIE "
        client.send(packet("O"))
        client.wait_for_end()
    assert feed.running()


def let_it_accept(feed):
    """Waits until every connection made so far is accepted. The listener's queue is short, and a connection
    that does not fit tries again only a second later: callers that make many wait after every few."""
    # A pass answers commands before it accepts: the second answer is sent after an accept.
    for _ in range(2):
        feed.control("stats")


def send_what_it_takes(sock, data, seconds=30):
    """Sends all of data, or what the other side takes until it ends the connection."""
    sock.settimeout(scaled(seconds))
    try:
        sock.sendall(data)
        return True
    except (ConnectionResetError, BrokenPipeError):
        return False


@pytest.fixture(name="feed")
def _feed(tmp_path):
    with Feed(tmp_path, "--quiet", interval_ms=20) as feed:
        feed.wait_for_messages(300)
        yield feed
        assert feed.stop() == 0


def test_random_bytes(feed):
    chooser = random.Random(11)
    before = resident_bytes(feed)
    for _ in range(60):
        with SoupClient(feed.snapshot_port) as client:
            send_what_it_takes(client.socket, chooser.randbytes(chooser.randint(1, 200_000)))
    # Well framed packets of any type and content, no login among them.
    for _ in range(20):
        with SoupClient(feed.snapshot_port) as client:
            kinds = [chr(kind) for kind in range(256) if chr(kind) not in "LO"]
            for _ in range(50):
                client.send(packet(chooser.choice(kinds), chooser.randbytes(chooser.randint(0, 300))))
    # Login requests of random content: each is answered, by acceptance or by rejection.
    for _ in range(20):
        with SoupClient(feed.snapshot_port) as client:
            client.send(packet("L", chooser.randbytes(46)))
            kind, payload = client.read_packet()
            assert kind in "AJ"
            assert kind == "A" or payload in (b"A", b"S")
    assert resident_bytes(feed) - before < MEMORY_GROWTH_MAX
    assert_goes_on(feed)


def test_length_zero_followed_by_50_megabytes_is_read_and_forgotten(feed):
    before = resident_bytes(feed)
    with SoupClient(feed.snapshot_port) as client:
        client.send(b"\0\0")
        chunk = login_request() * 20_000
        sent = 0
        first_number = feed.next_seq()
        while sent < 50_000_000:
            assert send_what_it_takes(client.socket, chunk)
            sent += len(chunk)
        # The feed ticked in between and none of the logins was looked at.
        assert feed.next_seq() > first_number
        assert feed.stats()["snapshots"] == 0
        assert resident_bytes(feed) - before < MEMORY_GROWTH_MAX
    assert_goes_on(feed)


def test_largest_packet_over_and_over_keeps_no_more_than_one(feed):
    before = resident_bytes(feed)
    with SoupClient(feed.snapshot_port) as client:
        big = packet("U", bytes(65534))
        for _ in range(300):
            client.send(big)
        client.send(login_request())
        accepted, _ = client.read_spin()
        assert accepted is not None
        assert resident_bytes(feed) - before < MEMORY_GROWTH_MAX
    assert_goes_on(feed)


def test_login_split_byte_by_byte(feed):
    with SoupClient(feed.snapshot_port) as client:
        client.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in login_request("SPLIT", feed.session, "1"):
            client.send(bytes([byte]))
            time.sleep(0.002)
        accepted, messages = client.read_spin()
        assert accepted is not None
        assert end_of_snapshot(messages[-1]) > 0
    assert_goes_on(feed)


def test_50_slow_connections_are_held_and_one_of_them_is_served(feed):
    request = login_request("SLOW")
    clients = []
    try:
        for _ in range(50):
            clients.append(SoupClient(feed.snapshot_port))
            let_it_accept(feed)
        number = feed.next_seq()
        for at in range(len(request) - 1):
            for client in clients:
                client.send(request[at:at + 1])
        feed.wait_for_messages(number + 10)
        assert feed.stats()["snapshots"] == 0
        clients[17].send(request[-1:])
        clients[17].read_spin()
        # While that one is logged in the others are turned away.
        clients[18].send(request[-1:])
        kinds = []
        while (answer := clients[18].read_packet()) is not None:
            kinds.append(answer)
        assert kinds[-1] == ("J", b"A")
    finally:
        for client in clients:
            client.close()
    wait_until(lambda: descriptors(feed) < 20, what="the connections' end")
    assert_goes_on(feed)


def test_500_times_connect_and_reset(feed):
    before = resident_bytes(feed)
    for number in range(500):
        SoupClient(feed.snapshot_port).reset()
        if number % 6 == 0:
            let_it_accept(feed)
    wait_until(lambda: descriptors(feed) < 20, what="the connections' end")
    assert resident_bytes(feed) - before < MEMORY_GROWTH_MAX
    assert_goes_on(feed)


# A spin of this many symbols is some twelve megabytes, more than the sockets' buffers hold.
MANY_SYMBOLS = ",".join(f"S{number:04d}:100" for number in range(8000))


@pytest.fixture(name="large_feed", scope="module")
def _large_feed(tmp_path_factory):
    with Feed(tmp_path_factory.mktemp("large"), "--quiet", symbols=MANY_SYMBOLS, interval_ms=1000,
              truth=False) as feed:
        yield feed
        assert feed.stop() == 0


def test_client_that_never_reads_holds_the_loop_only_until_it_goes(large_feed):
    client = SoupClient(large_feed.snapshot_port, receive_buffer=4096)
    client.send(login_request("NEVER"))
    time.sleep(1.5)  # the spin does not fit, and the loop waits: at most 2,000 times 10 ms
    assert not any("spin to 'NEVER'" in line for line in large_feed.stderr)
    client.reset()
    large_feed.wait_for_line("bench: Snap-Shot spin to 'NEVER'")
    number = large_feed.next_seq()
    large_feed.wait_for_messages(number + 1000)


def test_client_that_vanishes_during_the_spin(large_feed):
    client = SoupClient(large_feed.snapshot_port, receive_buffer=4096)
    client.send(login_request("GONE"))
    for _ in range(100):
        assert client.read_packet() is not None
    client.reset()
    large_feed.wait_for_line("bench: Snap-Shot spin to 'GONE'")
    number = large_feed.next_seq()
    large_feed.wait_for_messages(number + 1000)


def test_memory_does_not_grow_with_the_number_of_spins(large_feed):
    sizes = []
    for _ in range(12):
        with SoupClient(large_feed.snapshot_port) as client:
            _, messages = client.log_in()
            assert len(messages) == 1 + 7 + 3 * 8000 + 1 + 8000 + 7 * 8000 + 1
        sizes.append(resident_bytes(large_feed))
    # The history of 400,000 messages fills meanwhile: that is what may come on top.
    assert sizes[-1] - sizes[2] < 48 * 1024 * 1024, sizes


def test_stop_signal_in_the_middle_of_a_spin_ends_the_process_once_the_spin_is_over(tmp_path):
    with Feed(tmp_path, symbols=MANY_SYMBOLS, interval_ms=1000, truth=False) as feed:
        client = SoupClient(feed.snapshot_port, receive_buffer=4096)
        client.send(login_request("NEVER"))
        time.sleep(0.5)
        feed.process.terminate()
        time.sleep(0.5)
        client.reset()
        assert feed.wait() == 0
        assert feed.stderr[-1] == "[tessel] stopped"


def test_connection_number_1000_and_later_are_accepted_and_their_logins_rejected(feed):
    for number in range(998):
        SoupClient(feed.snapshot_port).close()
        if number % 6 == 0:
            let_it_accept(feed)
    let_it_accept(feed)
    with SoupClient(feed.snapshot_port) as client:
        accepted, _ = client.log_in("LAST")
        assert accepted is not None
    for _ in range(2):
        with SoupClient(feed.snapshot_port) as client:
            client.send(login_request("LATE"))
            assert client.read_packet() == ("J", b"A")
            assert client.read_packet() is None
    feed.wait_for_line("bench: Snap-Shot login 'LATE' session '' seq 0 rejected (A: not authorized / another "
                       "connection open / attempts exhausted)")
    numbers = feed.stats()
    assert numbers["snapshot_rejects"] == 2
    number = feed.next_seq()
    feed.wait_for_messages(number + 10)


class LimitedFeed(Feed):
    """A feed that may have so few descriptors open that a handful of connections uses them up."""

    LIMIT = 16

    def command(self):
        return ["prlimit", f"--nofile={self.LIMIT}:{self.LIMIT}", *super().command()]


def book_time_ns(feed):
    return json.loads(feed.book_path.read_text())["ts_ns"]


def test_idle_connections_take_every_descriptor_the_feed_ticks_writes_its_files_and_recovers(tmp_path):
    with LimitedFeed(tmp_path, "--quiet", interval_ms=20, book=True, bbo=True) as feed:
        feed.wait_for_messages(100)
        clients = []
        try:
            while descriptors(feed) < feed.LIMIT:
                clients.append(socket.create_connection(("127.0.0.1", feed.snapshot_port)))
                let_it_accept(feed)
            for _ in range(4):  # these wait in the listener's queue
                clients.append(socket.create_connection(("127.0.0.1", feed.snapshot_port)))
            let_it_accept(feed)
            cpu, begin = cpu_seconds(feed), time.monotonic()
            number = feed.next_seq()

            def is_newer(read_time, than):
                for sock in clients:
                    sock.sendall(packet("R"))  # or the feed would end silent connections after 15 seconds
                return read_time() > than
            for _ in range(4):
                now = time.time_ns()
                wait_until(lambda: is_newer(lambda: book_time_ns(feed), now), what="a new book")
                bbo = feed.bbo_path.stat().st_mtime_ns
                wait_until(lambda: is_newer(lambda: feed.bbo_path.stat().st_mtime_ns, bbo),
                           what="a new BBO file")
            assert feed.next_seq() > number
            # A loop that never rests would use all of the time.
            assert cpu_seconds(feed) - cpu < 0.7 * (time.monotonic() - begin)
            assert descriptors(feed) == feed.LIMIT
        finally:
            for sock in clients:
                sock.close()
        wait_until(lambda: descriptors(feed) < feed.LIMIT - 2, what="the connections' end")
        assert_goes_on(feed)
        assert feed.stop() == 0


class BarelyLimitedFeed(Feed):
    """A feed with a limit on its descriptors, 0 to 2 included."""

    limit = 0

    def command(self):
        return ["prlimit", f"--nofile={self.limit}:{self.limit}", *super().command()]


def run_with_descriptors(tmp_path, limit):
    """Starts a feed with this limit: (exit status or None when it runs, its lines)."""
    feed = BarelyLimitedFeed(tmp_path, truth=False)
    feed.limit = limit
    with feed.make_process() as child:
        wait_until(lambda: not child.running() or any("UQDF+UTDF" in line for line in child.stderr),
                   what="the start or the end")
        status = None if child.running() else child.wait()
        return status, child.stderr, feed.snapshot_port


def test_no_descriptor_for_the_snapshot_port_at_start_is_reported_as_such(tmp_path):
    # 0 to 2, the feed's, the retransmission service's and the control channel's socket.
    status, lines, port = run_with_descriptors(tmp_path, 6)
    assert status == 1
    assert lines[-1] == f"tessel: cannot listen on Snap-Shot port {port}: Too many open files"
    assert not any("control port" in line for line in lines)


def test_no_descriptor_for_the_control_port_at_start_is_reported_as_such(tmp_path):
    status, lines, port = run_with_descriptors(tmp_path, 5)
    assert status == 1
    assert "tessel: control port: Too many open files" in lines
    assert lines[-1] == f"tessel: cannot listen on Snap-Shot port {port}: Too many open files"


def test_ports_stay_usable_after_the_feed_was_killed_with_a_client_logged_in(tmp_path):
    feed = Feed(tmp_path, "--quiet")
    with feed:
        client = SoupClient(feed.snapshot_port)
        client.log_in()
        feed.process.kill()
        feed.process.wait()
        assert client.wait_for_end() >= 0
        again = subprocess.Popen(feed.command(), stderr=subprocess.PIPE, env=feed.environment())
        try:
            for line in again.stderr:
                assert b"cannot listen" not in line
                if b"UQDF+UTDF" in line:
                    break
            else:
                raise AssertionError("it did not start")
        finally:
            again.kill()
            again.wait()
            again.stderr.close()
            client.close()
