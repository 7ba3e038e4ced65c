"""The Wireshark dissector: every field of every message, filters, ports, segments and damage."""

import json
import random
import struct

import pytest

from capture import (SOURCE, TcpConversation, listen_to_capture, mold_packet, read_fields, read_messages,
                     run_tshark, shown_by_listener, soup_packet, udp_frame, write_pcap)

def read_vectors(kind):
    """The messages of vectors/KIND.jsonl, each with what is to be shown of it."""
    lines = (SOURCE / "vectors" / f"{kind}.jsonl").read_text().splitlines()
    vectors = [json.loads(line) for line in lines]
    return [(bytes.fromhex(vector["hex"]), shown_by_listener(json.dumps(vector["message"])))
            for vector in vectors]


# A message of every kind as the feed sends it; then quotes with what may follow them, and a negative price.
KINDS = sorted(path.stem for path in (SOURCE / "vectors").iterdir())
QUOTES = read_vectors("quote_short")[:20] + read_vectors("quote_long")[:20]
NEGATIVE = next(vector for vector in read_vectors("quote_long") if float(dict(vector[1])["bid"]) < 0)
MESSAGES = [read_vectors(kind)[0] for kind in KINDS] + QUOTES + [NEGATIVE]
SHORT_QUOTE = read_vectors("quote_short")[0]


def packets(first_sequence, per_packet=3):
    """All messages in MoldUDP64 packets."""
    for start in range(0, len(MESSAGES), per_packet):
        yield mold_packet(first_sequence + start, [data for data, _ in MESSAGES[start:start + per_packet]])


def session_bytes():
    """All messages as the sequenced data of a Snap-Shot session."""
    return b"".join(soup_packet("S", data) for data, _ in MESSAGES)


@pytest.fixture(scope="module")
def feed_capture(tmp_path_factory):
    path = tmp_path_factory.mktemp("capture") / "feed.pcap"
    return write_pcap(path, [udp_frame(packet, 25177) for packet in packets(100)])


def test_every_field_of_every_message_is_named_and_right(feed_capture):
    messages = read_messages(feed_capture)
    assert len(messages) == len(MESSAGES)
    for number, (got, (_, expected)) in enumerate(zip(messages, MESSAGES)):
        assert got == [("seq", str(100 + number))] + expected


def test_listener_decodes_the_same_from_the_same_capture(feed_capture, tmp_path):
    lines = listen_to_capture(feed_capture, "--decode")
    assert [shown_by_listener(line) for line in lines] == read_messages(feed_capture)
    path = write_pcap(tmp_path / "session.pcap", conversation(25179, (700,)))
    lines = listen_to_capture(path, "--decode", "--snapshot", "127.0.0.1:25179")
    got = [[row for row in shown_by_listener(line) if row[0] != "seq"] for line in lines]
    assert got == [shown for _, shown in MESSAGES]


def test_every_vector_is_shown_as_it_is_written(tmp_path):
    vectors = [vector for kind in KINDS for vector in read_vectors(kind)]
    path = write_pcap(tmp_path / "vectors.pcap", [udp_frame(mold_packet(1 + number, [data]), 25177)
                                                  for number, (data, _) in enumerate(vectors)])
    got = read_messages(path)
    assert len(got) == len(vectors) > 1000
    for number, (shown, (data, expected)) in enumerate(zip(got, vectors)):
        assert shown == [("seq", str(1 + number))] + expected, data.hex()


def test_codes_are_shown_with_their_meanings(tmp_path):
    path = write_pcap(tmp_path / "quote.pcap", [udp_frame(mold_packet(1, [SHORT_QUOTE[0]]), 25177)])
    shown = run_tshark("-r", path, "-V")
    for line in ("Quote Condition: R (regular, two-sided; counts for the NBBO)",
                 "NBBO Appendage Indicator: 2 (the short NBBO appendage follows)", "Odd-Lot Side: A (ask)"):
        assert line in shown, line


@pytest.mark.parametrize("condition, count", [
    ('tessel.symbol == "AAPL"', None),
    ('tessel.symbol == "AAPL" && tessel.kind == "correction"', None),
    ('tessel.bid > 249.985 && tessel.bid < 249.995', None),
    ("tessel.bid == 249.99", None),
    ("tessel.bid < 0", None),
    ("tessel.nbbo_bid == 249.99 && tessel.nbbo_ask_size == 400", None),
    ("tessel.size == 300", None),
    ("tessel.seq == 105", 1),
    ('tessel.sip_time >= "2023-11-14 22:13:20"', None),
    ('tessel.sip_time > "2023-11-14 22:14:00"', 0),
    ("tessel.wrong_length || tessel.unknown_kind || tessel.cut_block || _ws.malformed", 0),
])
def test_fields_can_be_filtered(tmp_path, condition, count):
    """Counted with one message a packet, so that a filter picks single messages."""
    path = write_pcap(tmp_path / "single.pcap", [udp_frame(packet, 25177) for packet in packets(100, 1)])
    found = len(run_tshark("-r", path, "-Y", condition).splitlines())
    if count is not None:
        assert found == count
        return

    def has(shown, name, test):
        return any(field == name and test(value) for field, value in shown)

    tests = {
        'tessel.symbol == "AAPL"': lambda m: has(m, "symbol", lambda v: v == "AAPL"),
        'tessel.symbol == "AAPL" && tessel.kind == "correction"': lambda m: has(m, "kind",
                                                                                lambda v: v == "correction"),
        "tessel.bid < 0": lambda m: has(m, "bid", lambda v: float(v) < 0),
        "tessel.nbbo_bid == 249.99 && tessel.nbbo_ask_size == 400": lambda m: has(m, "nbbo_bid",
                                                                                  lambda v: v == "249.99"),
        "tessel.size == 300": lambda m: has(m, "size", lambda v: v == "300"),
        'tessel.sip_time >= "2023-11-14 22:13:20"': lambda m: True,
    }
    wanted = tests.get(condition, lambda m: has(m, "bid", lambda v: v == "249.99"))
    expected = sum(1 for _, shown in MESSAGES if wanted(shown))
    assert expected > 0 and found == expected


def test_other_ports_are_taken_by_option_and_by_preference(tmp_path):
    path = write_pcap(tmp_path / "other.pcap", [udp_frame(packet, 31001) for packet in packets(1)])
    assert read_messages(path) == []
    assert len(read_messages(path, "-d", "udp.port==31001,tessel")) == len(MESSAGES)
    assert len(read_messages(path, "-o", "tessel.udp_ports:31000-31002")) == len(MESSAGES)


def test_messages_show_below_wiresharks_own_mold_dissector(tmp_path):
    path = write_pcap(tmp_path / "other.pcap", [udp_frame(packet, 31001) for packet in packets(1)])
    messages = read_messages(path, "-d", "udp.port==31001,moldudp64", "-d",
                             "moldudp64.payload,tessel_message")
    assert [shown for shown in messages] == [expected for _, expected in MESSAGES]
    rows = read_fields(path, ["moldudp64.msgseq"], "-d", "udp.port==31001,moldudp64")
    assert sum((row[0] for row in rows), []) == [str(1 + number) for number in range(len(MESSAGES))]


def conversation(port, sizes, accepted_apart=False):
    """A Snap-Shot session on `port`, the server's bytes cut into segments of the sizes, again and again. The
    feed sends Login Accepted by itself, so it can have a separate segment."""
    talk = TcpConversation(port)
    talk.client(soup_packet("L", b"LATE  " + b"secret".ljust(10) + b"UTPBENCH01" + b"1".rjust(20)))
    data = soup_packet("A", b"UTPBENCH01" + b"1".ljust(20))
    if accepted_apart:
        talk.server(data)
        data = b""
    data += session_bytes() + soup_packet("H")
    turn = 0
    while data:
        talk.server(data[:sizes[turn % len(sizes)]])
        data = data[sizes[turn % len(sizes)]:]
        turn += 1
    talk.client(soup_packet("R"))
    talk.client(soup_packet("O"))
    return talk.frames


@pytest.mark.parametrize("sizes", [(100_000,), (1448,), (2, 1), (7, 250, 3), (33,)])
def test_snapshot_session_is_put_together_from_any_segments(tmp_path, sizes):
    path = write_pcap(tmp_path / "session.pcap", conversation(25179, sizes))
    assert read_messages(path) == [expected for _, expected in MESSAGES]
    rows = read_fields(path, ["tessel_snapshot.packet_type", "tessel_snapshot.username",
                              "tessel_snapshot.password",
                              "tessel_snapshot.session", "tessel_snapshot.requested_sequence",
                              "tessel_snapshot.next_sequence"], "-Y", "tessel_snapshot")
    columns = [sum((row[column] for row in rows), []) for column in range(6)]
    assert columns[0] == ["L", "A"] + ["S"] * len(MESSAGES) + ["H", "R", "O"]
    assert columns[1:3] == [["LATE"], ["secret"]]
    assert columns[3] == ["UTPBENCH01", "UTPBENCH01"]
    assert columns[4] == [" " * 19 + "1"] and columns[5] == ["1"]
    assert run_tshark("-r", path, "-Y", "_ws.malformed || tessel.short_packet || tessel.wrong_length") == ""


@pytest.mark.parametrize("sizes", [(1000,), (7, 250, 3)])
def test_snapshot_session_shows_below_wiresharks_own_soup_dissector(tmp_path, sizes):
    """Login Accepted has a separate segment here: Wireshark begins a new conversation after it and would
    not put together a packet that starts in its segment."""
    path = write_pcap(tmp_path / "session.pcap", conversation(31002, sizes, accepted_apart=True))
    assert read_messages(path) == []
    assert len(read_messages(path, "-d", "tcp.port==31002,tessel_snapshot")) == len(MESSAGES)
    assert read_messages(path, "-d", "tcp.port==31002,soupbintcp") == [expected for _, expected in MESSAGES]


def test_heartbeats_and_requests_are_named(tmp_path):
    request = mold_packet(7, [])[:18] + struct.pack(">H", 5)
    path = write_pcap(tmp_path / "small.pcap", [
        udp_frame(mold_packet(31, []), 25177), udp_frame(request, 25178, destination="127.0.0.1")])
    rows = read_fields(path, ["_ws.col.Info", "tessel.session", "tessel.packet_sequence",
                              "tessel.packet_count"])
    assert rows == [[["heartbeat, next 31"], ["UTPBENCH01"], ["31"], ["0"]],
                    [["request from 7, 5 messages"], ["UTPBENCH01"], ["7"], ["5"]]]


def test_damage_is_pointed_at(tmp_path):
    quote = SHORT_QUOTE[0]
    unknown = b"1X?Q " + bytes(24)
    frames = [udp_frame(packet, 25177) for packet in (
        mold_packet(1, [quote[:-1]]), mold_packet(2, [quote + b"x"]), mold_packet(3, [b"short"]),
        mold_packet(4, [unknown]), mold_packet(5, [quote])[:-1], mold_packet(6, [quote]) + b"\0",
        mold_packet(7, [quote, b""]), mold_packet(8, [quote]))]
    path = write_pcap(tmp_path / "damage.pcap", frames)
    for condition, numbers in (("tessel.wrong_length", ["1", "2", "3"]), ("tessel.unknown_kind", ["4"]),
                               ("tessel.cut_block", ["5", "6", "7"])):
        rows = read_fields(path, ["tessel.packet_sequence"], "-Y", condition)
        assert [row[0][0] for row in rows] == numbers, condition
    session = TcpConversation(25179)
    session.client(soup_packet("L", b"LATE"))
    session.server(struct.pack(">H", 0) + soup_packet("J"))
    path = write_pcap(tmp_path / "session.pcap", session.frames)
    assert len(run_tshark("-r", path, "-Y", "tessel.short_packet").splitlines()) == 2


def test_random_damage_Seed3_never_breaks_the_script(tmp_path):
    """Packets and sessions with bytes changed, cut off and put in: the script must go on without an error."""
    chance = random.Random(3)

    def damaged(data):
        data = bytearray(data)
        for _ in range(chance.randint(1, 6)):
            place = chance.randrange(len(data))
            action = chance.randrange(3)
            if action == 0:
                data[place] = chance.choice(b"\0\1\xff0235QTAC" + bytes([chance.randrange(256)]))
            elif action == 1:
                del data[place:place + chance.randint(1, 9)]
            else:
                data[place:place] = bytes(chance.randrange(256) for _ in range(chance.randint(1, 9)))
            data = data or bytearray(1)
        return bytes(data)

    frames = [udp_frame(damaged(packet), 25177) for _ in range(40) for packet in packets(1)]
    for number in range(20):
        talk = TcpConversation(25179, 41000 + number)
        talk.server(damaged(session_bytes()[:8000]))
        frames += talk.frames
    path = write_pcap(tmp_path / "damaged.pcap", frames)
    text_out = run_tshark("-r", path, "-V")
    assert "Lua" not in text_out
    assert text_out.count("UQDF/UTDF message") > 500
