"""Receivers that lost packets ask for them again and end with everything."""

import re

import pytest
from feed import Feed, wait_until
from mold import HEADER, Listener, Requester, add_packet, gaps, split_packet


def freeze(feed):
    """Stops the model and returns the number of the last message: nothing is numbered any more."""
    assert feed.control("rate -1") == "ok rate -1"
    return feed.next_seq() - 1


def wait_for_final_heartbeat(listener, last):
    wait_until(lambda: any(sequence == last + 1 for _, sequence in listener.heartbeats()),
               what="the heartbeat that carries the last number")


def fault_lines(feed, kind, expected):
    """How many lines of standard error report that fault, once the expected number has been read."""
    def count():
        return sum(f"tessel fault: {kind} seq" in line for line in feed.stderr)

    wait_until(lambda: count() >= expected, what=f"{expected} lines on {kind} packets")
    return count()


def test_every_third_dropped_fifth_duplicated_fourth_held_and_a_burst_lost_ends_complete(tmp_path):
    feed = Feed(tmp_path, "--drop-every", "3", "--dup-every", "5", "--reorder-every", "4",
                "--drop-burst", "40:7", interval_ms=5)
    with Listener(feed) as listener, feed:
        wait_until(lambda: feed.stats()["dropped"] > 60, what="enough faults")
        last = freeze(feed)
        wait_for_final_heartbeat(listener, last)
        stats = feed.stats()
        received = listener.messages()
        order = [first for _, first, _ in listener.data()]
        missing = gaps(received, 1, last)

        # The feed was damaged as asked for.
        assert stats["dropped"] > 60 and stats["duplicated"] > 5 and stats["reordered"] > 5
        assert len(missing) > 20
        assert any(later < earlier for earlier, later in zip(order, order[1:])), "nothing came out of order"
        assert any(later == earlier for earlier, later in zip(order, order[1:])), "nothing came twice"
        assert max(received) <= last

        # The gaps are asked for, one request a gap, and filled.
        with Requester(feed) as requester:
            complete = requester.fetch(1, last, dict(received))
            assert sorted(complete) == list(range(1, last + 1))
            # All of it once more from the history: the same bytes under the same numbers.
            assert requester.fetch(1, last) == complete

        # What standard error reported about each fault agrees with the counts.
        for kind in ("dropped", "duplicated", "reordered"):
            assert fault_lines(feed, kind, stats[kind]) == stats[kind]
    assert feed.exit_code == 0


def test_dropped_packets_are_the_ones_named_on_standard_error(tmp_path):
    feed = Feed(tmp_path, "--drop-every", "4", "--drop-burst", "5:3", interval_ms=20)
    with Listener(feed) as listener, feed:
        wait_until(lambda: feed.stats()["dropped"] >= 10, what="ten dropped packets")
        last = freeze(feed)
        wait_for_final_heartbeat(listener, last)
        stats = feed.stats()
        fault_lines(feed, "dropped", stats["dropped"])
        line = re.compile(r"tessel fault: dropped seq (\d+) \(packet (\d+), (\d+) message\(s\)\)")
        named = [tuple(map(int, match)) for match in line.findall("\n".join(feed.stderr))]
        numbers = [packet for _, packet, _ in named]
        flushed = stats["sent"] + stats["dropped"]
        assert numbers == [number for number in range(1, flushed + 1) if number % 4 == 0 or 5 <= number < 8]
        received = listener.messages()
        for first, _, count in named:
            assert not any(sequence in received for sequence in range(first, first + count))
        lost = {sequence for first, _, count in named for sequence in range(first, first + count)}
        with Requester(feed) as requester:
            assert set(requester.fetch(1, last, dict(received))) == set(range(1, last + 1))
            assert lost <= set(range(1, last + 1)) - set(received)


def test_all_packets_dropped_the_history_alone_gives_everything(tmp_path):
    with Feed(tmp_path, "--drop-every", "1", interval_ms=10) as feed, Requester(feed) as requester:
        feed.wait_for_messages(300)
        last = freeze(feed)
        complete = requester.fetch(1, last)
        assert sorted(complete) == list(range(1, last + 1))
        assert complete[1][:5] == b"1CIE " and complete[2][:5] == b"1ACE "
        assert feed.stats()["sent"] == 0
        # Every line of the truth log names a message that exists.
        assert {line["seq"] for line in feed.truth()} <= set(complete)


def test_65535_messages_in_one_request(tmp_path):
    symbols = ",".join(f"S{number:03d}:{20 + number}" for number in range(300))
    with Feed(tmp_path, interval_ms=0, symbols=symbols, truth=False) as feed, Requester(feed) as requester:
        feed.wait_for_messages(70_000)
        last = freeze(feed)
        assert last > 65_600
        packets = requester.ask(17, 65535, 17 + 65534)
        messages = {}
        for packet in packets:
            assert split_packet(packet)[0] == b"UTPBENCH01"
            add_packet(messages, packet)
        if requester.buffer_bytes >= 16 * 1024 * 1024:  # the whole reply fits: nothing may be missing
            assert sorted(messages) == list(range(17, 17 + 65535))
            firsts = [split_packet(packet)[1] for packet in packets]
            assert firsts == sorted(firsts)
        else:  # a small buffer loses some of a burst; what came must be from the range
            assert set(messages) <= set(range(17, 17 + 65535))
            assert len(messages) > 1000
        again = requester.fetch(1, last, {})
        assert all(again[sequence] == message for sequence, message in messages.items())


def test_messages_not_sent_yet_are_answered(tmp_path):
    with Feed(tmp_path, interval_ms=10) as feed, Requester(feed) as requester, Listener(feed) as listener:
        feed.wait_for_messages(100)
        before = freeze(feed)
        wait_for_final_heartbeat(listener, before)
        assert feed.control("reorder 1") == "ok reorder 1"
        assert feed.control("asof MSFT") == "ok asof MSFT"
        last = feed.next_seq() - 1
        assert last == before + 1
        wait_for_final_heartbeat(listener, last)
        assert last not in listener.messages()  # numbered, but held back
        packets = requester.ask(last, 65535, last)
        assert [split_packet(packet)[1:] for packet in packets][0][0] == last
        (message,) = split_packet(packets[0])[2]
        assert message[:5] == b"1TQDQ"
        assert feed.control("asof AAPL") == "ok asof AAPL"
        wait_until(lambda: last in listener.messages(), what="the packet held back")
        assert listener.messages()[last] == message


@pytest.fixture(scope="module")
def still_feed(tmp_path_factory):
    """A feed with a few hundred messages whose model is frozen."""
    with Feed(tmp_path_factory.mktemp("still"), interval_ms=10) as feed:
        feed.wait_for_messages(300)
        freeze(feed)
        yield feed


def answers(requester, *requests):
    """Sends the requests and then one whose answer is known; returns what came before that answer."""
    for request in requests:
        requester.send_bytes(request)
    requester.send(2, 1)
    packets = []
    while True:
        packet = requester.receive(30)
        assert packet is not None, "the service does not answer"
        _, first, messages = split_packet(packet)
        if (first, len(messages)) == (2, 1):
            return packets
        packets.append((first, len(messages)))


def test_more_asked_than_there_is_gets_what_there_is(still_feed):
    last = still_feed.next_seq() - 1
    with Requester(still_feed) as requester:
        packets = requester.ask(last - 4, 65535, last)
        (packet,) = packets
        assert split_packet(packet)[1] == last - 4
        assert len(split_packet(packet)[2]) == 5


def test_requests_beyond_the_end_of_none_and_near_the_end_of_all_numbers_get_nothing(still_feed):
    session = b"UTPBENCH01"
    with Requester(still_feed) as requester:
        assert answers(requester,
                       HEADER.pack(session, still_feed.next_seq(), 100),
                       HEADER.pack(session, 1, 0),
                       HEADER.pack(session, 2**64 - 1, 65535),
                       HEADER.pack(session, 2**63, 65535),
                       HEADER.pack(session, 0, 1)) == []


def test_sequence_zero_counts_from_zero(still_feed):
    with Requester(still_feed) as requester:
        assert answers(requester, HEADER.pack(b"UTPBENCH01", 0, 4)) == [(1, 3)]


def test_wrong_session_gets_no_answer(still_feed):
    with Requester(still_feed) as requester:
        assert answers(requester, HEADER.pack(b"OTHER     ", 1, 10), HEADER.pack(b"utpbench01", 1, 10)) == []


def test_bytes_after_the_request_are_ignored(still_feed):
    with Requester(still_feed) as requester:
        assert answers(requester, HEADER.pack(b"UTPBENCH01", 3, 2) + b"\xff" * 3000) == [(3, 2)]


def test_datagram_of_19_bytes_is_ignored(still_feed):
    with Requester(still_feed) as requester:
        assert answers(requester, HEADER.pack(b"UTPBENCH01", 3, 2)[:19], b"", b"x") == []


def test_short_session_must_come_padded_with_blanks(tmp_path):
    with Feed(tmp_path, session="AB", interval_ms=-1) as feed:
        with Requester(feed, session=b"AB") as requester:
            assert answers(requester, HEADER.pack(b"AB".ljust(10, b"\0"), 1, 3)) == []
            assert answers(requester, HEADER.pack(b"AB        ", 1, 3)) == [(1, 3)]
