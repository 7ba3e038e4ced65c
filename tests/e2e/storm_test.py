"""Random bytes from outside: the feed keeps running, its truth log stays well formed and its memory flat."""

import os
import random
import socket
import string

import pytest
from feed import Feed, wait_until
from mold import HEADER, Requester, split_packet
from time_scale import scaled

# What a storm may add to the resident memory: some hundred kB as measured, most of it the history of the
# messages made meanwhile. 10,000 datagrams that each leaked 450 bytes would break it.
MEMORY_GROWTH_MAX = 4 * 1024 * 1024
DATAGRAMS = 10_000
BATCH = 50  # sent before the next reply is awaited, so that no datagram is lost to a full socket buffer


@pytest.fixture(autouse=True)
def small_quarantine(monkeypatch):
    """A program built with the address sanitizer keeps freed memory back, 256 MB of it by default,
    which would look like growth. Other builds do not read the variable."""
    options = os.environ.get("ASAN_OPTIONS")
    small = "quarantine_size_mb=1:thread_local_quarantine_size_kb=64"
    monkeypatch.setenv("ASAN_OPTIONS", f"{options}:{small}" if options else small)


def resident_bytes(feed):
    with open(f"/proc/{feed.pid}/status", encoding="ascii") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) * 1024
    raise AssertionError("no VmRSS")


def start(tmp_path):
    feed = Feed(tmp_path, interval_ms=20).start()
    feed.wait_for_messages(500)  # past the first growth of every buffer
    return feed


def assert_goes_on(feed, memory_before):
    """The model ticks, the log parses to its last complete line, memory is where it was."""
    for command in ("rate 20", "resume", "drop 0", "dup 0", "reorder 0", "drop_every 0", "dup_every 0",
                    "reorder_every 0"):
        assert feed.control(command) == f"ok {command}"
    number = feed.next_seq()
    feed.wait_for_messages(number + 50)
    sequences = [line["seq"] for line in feed.truth() if "mark" not in line]  # parses every line
    assert len(sequences) > 100
    assert all(0 < sequence < feed.next_seq() for sequence in sequences)
    assert resident_bytes(feed) - memory_before < MEMORY_GROWTH_MAX
    assert feed.running()
    assert feed.stop() == 0


def random_bytes(chooser, longest):
    return chooser.randbytes(chooser.randint(0, longest))


def garbled_command(chooser):
    """A real command word with an argument that makes no sense, or with noise around it. Never the one that
    ends the process, and no mark: its word goes into the truth log as it is."""
    word = chooser.choice(["pause", "resume", "drop", "dup", "reorder", "drop_every", "dup_every",
                           "reorder_every", "rate", "halt", "luld_pause", "band", "mwcb", "trf", "cancel",
                           "correct", "close", "asof", "wipeout", "stats", "STOP", "stop!", "marks"]).encode()
    argument = chooser.choice([b"", b"AAPL", b"MSFT", b"0", b"1", b"-1", b"4294967296", b"9" * 23, b"NOPE",
                               b"\xff\xfe", b"Q", b"%s%n", b"A" * 300, random_bytes(chooser, 40)])
    blank = chooser.choice([b" ", b"\t", b"  ", b"\n", b"\x0b"])
    end = chooser.choice([b"", b"\n", b"\r\n", b" \r\n ", b"\0stop"])
    return word + blank + argument + end


def test_10000_random_datagrams_to_the_control_port(tmp_path):
    chooser = random.Random(20)
    feed = start(tmp_path)
    with feed, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as noise:
        before = resident_bytes(feed)
        for number in range(DATAGRAMS):
            data = random_bytes(chooser, 600) if chooser.random() < 0.7 else garbled_command(chooser)
            noise.sendto(data, ("127.0.0.1", feed.control_port))
            if number % BATCH == 0:
                assert feed.control("stats").startswith("ok quotes=")
        assert_goes_on(feed, before)


def test_10000_random_datagrams_to_the_retransmission_port(tmp_path):
    chooser = random.Random(21)
    feed = start(tmp_path)
    with feed, Requester(feed) as requester, Requester(feed) as noise:
        before = resident_bytes(feed)
        for number in range(DATAGRAMS):
            kind = chooser.random()
            if kind < 0.03:  # too short for a request: each ends one pass's draining
                noise.send_bytes(random_bytes(chooser, 19))
            elif kind < 0.8:
                noise.send_bytes(chooser.randbytes(chooser.randint(20, 1400)))
            else:  # the right session, any number, a modest count
                sequence = chooser.choice([0, 1, chooser.randint(0, 5000), 2**63, 2**64 - 1,
                                           chooser.getrandbits(64)])
                noise.send_bytes(HEADER.pack(b"UTPBENCH01", sequence, chooser.randint(0, 100)))
            if number % BATCH == 0:
                requester.send(1, 1)
                packet = requester.receive(60)
                assert packet is not None, "the service does not answer any more"
                assert split_packet(packet)[1] == 1
        assert_goes_on(feed, before)


def raw_reply(feed, data):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.settimeout(scaled(30))
        client.sendto(data, ("127.0.0.1", feed.control_port))
        return client.recv(65536)


def test_lines_of_511_512_and_2000_bytes(tmp_path):
    feed = start(tmp_path)
    with feed:
        before = resident_bytes(feed)
        for _ in range(100):
            # At most 511 bytes of a line are taken.
            for length, kept in ((510, 510), (511, 511), (512, 511), (2000, 511)):
                assert raw_reply(feed, b"x" * length) == b"err unknown command '" + b"x" * kept + b"'\n"
                line = b"mark " + b"L" * (length - 5)
                assert raw_reply(feed, line) == b"ok " + line[:kept] + b"\n"
                # A command word after the cut is not seen; one before it is.
                assert raw_reply(feed, b" " * length + b"stop") == (
                    b"err unknown command ''\n" if length > 510 else b"err unknown command 's'\n")
        marks = [line["mark"] for line in feed.truth() if "mark" in line]
        assert {len(mark) for mark in marks} == {505, 506}
        assert len(marks) == 400
        assert_goes_on(feed, before)


def test_nul_and_non_ascii_bytes(tmp_path):
    chooser = random.Random(22)
    feed = start(tmp_path)
    with feed:
        before = resident_bytes(feed)
        rows = [(b"\0", b"err unknown command ''\n"),
                (b"\0stop", b"err unknown command ''\n"),
                (b"stats\0stop", None),
                (b"band AAPL\0\xff", b"ok band AAPL\n"),
                (b"b\0and AAPL", b"err unknown command 'b'\n"),
                (b"\xff\xfe\xfd", b"err unknown command '\xff\xfe\xfd'\n"),
                ("stöp".encode(), "err unknown command 'stöp'\n".encode()),
                (b"halt \xc3\xa4\xff", b"err unknown symbol\n"),
                (b"wipeout \xc3\xa4", b"err wipeout needs a Market Center Originator ID\n"),
                (b"drop \xb2", b"ok drop \xb2\n"),
                (b"\xa0resume", b"err unknown command '\xa0resume'\n")]
        for data, expected in rows * 20:
            reply = raw_reply(feed, data)
            if expected is None:
                assert reply.startswith(b"ok quotes=")
            else:
                assert reply == expected
        for _ in range(500):
            letters = bytes(chooser.choice(b"\0\x01\x7f\x80\xc3\xff \t" + string.ascii_letters.encode())
                            for _ in range(chooser.randint(1, 511)))
            assert raw_reply(feed, letters).startswith((b"err unknown command '", b"ok "))
        assert_goes_on(feed, before)


def test_storms_on_every_port_at_once_end_in_a_clean_stop(tmp_path):
    chooser = random.Random(23)
    feed = start(tmp_path)
    with feed, Requester(feed) as noise, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        before = resident_bytes(feed)
        for number in range(2000):
            control.sendto(random_bytes(chooser, 600), ("127.0.0.1", feed.control_port))
            noise.send_bytes(chooser.randbytes(64))
            if number % 100 == 0:
                with socket.create_connection(("127.0.0.1", feed.snapshot_port),
                                              timeout=scaled(30)) as client:
                    client.sendall(chooser.randbytes(300))
                assert feed.control("stats").startswith("ok quotes=")
        wait_until(lambda: feed.control("band AAPL") == "ok band AAPL", what="an answer")
        assert_goes_on(feed, before)
