"""The Wireshark dissector: every field of every message, filters, ports, segments and damage."""

import json
import random
import struct

import pytest

from capture import (SOURCE, TcpConversation, listen_to_capture, mold_packet, read_fields, read_messages,
                     run_tshark, shown_by_listener, soup_packet, udp_frame, write_pcap)

# Fields in wire order. A kind says how many bytes a value takes and what Wireshark shows for it.
LETTER, COUNT1, COUNT2, COUNT4, NUMBER, PRICE2, PRICE8, SHARES, TIME = range(9)
WIDTHS = {LETTER: 1, COUNT1: 1, COUNT2: 2, COUNT4: 4, NUMBER: 8, PRICE2: 2, PRICE8: 8, SHARES: 8, TIME: 8}
PACKING = {COUNT1: ">B", COUNT2: ">H", COUNT4: ">I", NUMBER: ">Q", PRICE8: ">q", SHARES: ">Q", TIME: ">Q"}

NOW = 1_763_732_000_123_456_789
NOW_SHOWN = "Nov 21, 2025 13:33:20.123456789 UTC"
EPOCH_SHOWN = "Jan  1, 1970 00:00:00.000000000 UTC"


def text(width):
    return ("text", width)


def encode(rows):
    """The bytes of fields given as (name, kind, value), and what is shown of each, in wire order."""
    data, shown = b"", []
    for name, kind, value in rows:
        if kind == LETTER:
            data += value.encode("latin-1")
            shown.append((name, value))
        elif isinstance(kind, tuple):
            data += value.encode().ljust(kind[1])
            shown.append((name, value))
        elif kind == TIME:
            data += struct.pack(">Q", value)
            shown.append((name, {NOW: NOW_SHOWN, 0: EPOCH_SHOWN}[value]))
        elif kind == PRICE2:  # given in dollars
            data += struct.pack(">H", round(value * 100))
            shown.append((name, f"{value:.15g}"))
        elif kind in (PRICE8, SHARES):
            data += struct.pack(PACKING[kind], round(value * 1_000_000))
            shown.append((name, f"{value:.15g}"))
        else:
            data += struct.pack(PACKING[kind], value)
            shown.append((name, str(value)))
    return data, shown


def message(category, letter, center, kind, length, *parts):
    """A message: the header, then the fields of each part. Returns its bytes and what is to be shown."""
    header = [("version", LETTER, "1"), ("category", LETTER, category), ("type", LETTER, letter),
              ("market_center", LETTER, center), ("sub_market_center", LETTER, " "), ("sip_time", TIME, NOW),
              ("participant_time", TIME, NOW), ("participant_token", NUMBER, 77)]
    data, shown = encode(header + [row for part in parts for row in part])
    assert len(data) == length, f"{kind}: {len(data)} bytes"
    return data, [("kind", kind)] + shown


def short_quote(nbbo="0", best="0", odd_list="0", count=0, *parts, length=52):
    return message("Q", "C", "Q", "quote_short", length, [
        ("symbol", text(5), "AAPL"), ("bid", PRICE2, 190.01), ("bid_size", COUNT2, 300),
        ("ask", PRICE2, 655.35),
        ("ask_size", COUNT2, 65534), ("condition", LETTER, "R"), ("sip_flag", LETTER, "E"),
        ("luld_bbo", LETTER, "A"),
        ("retail", LETTER, " "), ("nbbo_indicator", LETTER, nbbo), ("luld_nbbo", LETTER, "I"),
        ("best_odd_lot_indicator", LETTER, best), ("odd_lot_list_indicator", LETTER, odd_list),
        ("odd_lot_count", COUNT2, count)], *parts)


def long_quote(nbbo="0", mpids=" ", best="0", odd_list="0", count=0, *parts, length=83):
    return message("Q", "D", "D", "quote_long", length, [
        ("adf_time", TIME, NOW), ("symbol", text(11), "ABCDEFGHIJK"), ("bid", PRICE8, -0.01),
        ("bid_size", COUNT4, 4_000_000_000), ("ask", PRICE8, 1234567.89), ("ask_size", COUNT4, 100),
        ("condition", LETTER, "Y"), ("sip_flag", LETTER, " "), ("luld_bbo", LETTER, "B"),
        ("retail", LETTER, " "),
        ("nbbo_indicator", LETTER, nbbo), ("luld_nbbo", LETTER, "H"), ("adf_mpid_indicator", LETTER, mpids),
        ("best_odd_lot_indicator", LETTER, best), ("odd_lot_list_indicator", LETTER, odd_list),
        ("odd_lot_count", COUNT2, count)], *parts)


def nbbo_part(price, size):
    return [("nbbo_condition", LETTER, "R"), ("nbbo_bid_center", LETTER, "K"), ("nbbo_bid", price, 190.02),
            ("nbbo_bid_size", size, 1100), ("nbbo_ask_center", LETTER, "Z"), ("nbbo_ask", price, 190.03),
            ("nbbo_ask_size", size, 200)]


def best_part(price, mpids=False):
    rows = [("best_odd_lot_bid_center", LETTER, "P"), ("best_odd_lot_bid", price, 190.015),
            ("best_odd_lot_bid_size", COUNT2, 7), ("best_odd_lot_ask_center", LETTER, "D"),
            ("best_odd_lot_ask", price, 190.02), ("best_odd_lot_ask_size", COUNT2, 99)]
    if price == PRICE2:
        rows[1] = ("best_odd_lot_bid", price, 190.01)
    if mpids:
        rows += [("best_odd_lot_bid_mpid", text(4), "NITE"), ("best_odd_lot_ask_mpid", text(4), "GS")]
    return rows


def list_part(price, mpids=False):
    rows = []
    for side, value, mpid in (("B", 190.02, "NITE"), ("A", 190.05, "GSCO")):
        rows += [("odd_lot_center", LETTER, "Q"), ("odd_lot_side", LETTER, side),
                 ("odd_lot_price", price, value),
                 ("odd_lot_size", COUNT2, 41)] + ([("odd_lot_mpid", text(4), mpid)] if mpids else [])
    return rows


MPID_PART = [("bid_mpid", text(4), "NITE"), ("ask_mpid", text(4), "GSCO")]


def trade_part(prefix="", conditions="@  I", days=True):
    rows = [(prefix + "id", NUMBER, 18_446_744_073_709_551_615), (prefix + "price", PRICE8, 190.01),
            (prefix + "size", SHARES, 300), (prefix + "conditions", text(4), conditions),
            (prefix + "trade_through_exempt", LETTER, "X")]
    return rows + ([(prefix + "sale_days", COUNT2, 3)] if days else [])


def statistics_part(name):
    return [(name + "_high", PRICE8, 191.5), (name + "_low", PRICE8, 189.25),
            (name + "_last", PRICE8, 190.01),
            (name + "_volume", SHARES, 123456.5)]


REPORT_PART = [("trf_time", TIME, NOW), ("symbol", text(11), "MSFT")]
CHANGE_PART = [("consolidated_change", LETTER, "7"), ("last_center", LETTER, "N")]
DIRECTORY_PART = [
    ("symbol", text(11), "AAPL"), ("old_symbol", text(11), ""), ("issue_name", text(30), "AAPL COMMON STOCK"),
    ("issue_type", LETTER, "C"), ("issue_sub_type", text(2), "C"), ("flag_84", LETTER, "Q"),
    ("flag_85", LETTER, "P"),
    ("flag_86", LETTER, "N"), ("round_lot", COUNT2, 100), ("flag_89", LETTER, "M")]

MESSAGES = [
    message("C", "I", "E", "start_of_day", 29),
    message("C", "O", "Q", "session_open", 29),
    message("C", "P", "K", "wipe_out", 29),
    message("A", "C", "E", "decline_levels", 53,
            [("level_1", PRICE8, 4650), ("level_2", PRICE8, 4350), ("level_3", PRICE8, 4000)]),
    message("A", "B", "Q", "directory_short", 90, DIRECTORY_PART),
    message("A", "F", "Q", "directory_long", 117, DIRECTORY_PART, [
        ("flag_90", LETTER, "N"), ("flag_91", LETTER, "0"), ("flag_92", LETTER, "3"), ("state", LETTER, "H"),
        ("reason", text(6), "LUDP"), ("indicator", LETTER, "0"), ("reserved_101", NUMBER, 5),
        ("reserved_109", NUMBER, 6)]),
    message("A", "V", "Q", "indicator", 41, [("symbol", text(11), "AAPL"), ("indicator", LETTER, "0")]),
    message("A", "H", "Q", "trading_action", 59, [
        ("symbol", text(11), "AAPL"), ("action", LETTER, "H"), ("action_sequence", COUNT4, 4_000_000_000),
        ("action_time", TIME, NOW), ("reason", text(6), "T1")]),
    message("A", "P", "E", "price_band", 65, [
        ("symbol", text(11), "AAPL"), ("indicator", LETTER, "B"), ("effective_time", TIME, NOW),
        ("lower", PRICE8, 180.5), ("upper", PRICE8, 199.5)]),
    message("A", "E", "Q", "collar", 69, [
        ("symbol", text(11), "AAPL"), ("action_sequence", COUNT4, 9), ("reference", PRICE8, 190),
        ("upper", PRICE8, 199.5),
        ("lower", PRICE8, 180.5), ("extension", COUNT1, 0)]),
    message("A", "D", "E", "mwcb_status", 30, [("level", LETTER, "3")]),
    message("A", "S", "E", "end_of_snapshot", 37, [("snapshot_sequence", NUMBER, 812)]),
    message("Q", "A", "Q", "odd_lots_short", 39 + 10 + 12, [
        ("symbol", text(5), "AAPL"), ("sip_flag", LETTER, " "), ("best_odd_lot_indicator", LETTER, "2"),
        ("odd_lot_list_indicator", LETTER, "2"), ("odd_lot_count", COUNT2, 2)], best_part(PRICE2),
        list_part(PRICE2)),
    message("Q", "B", "Q", "odd_lots_long", 53 + 22, [
        ("adf_time", TIME, NOW), ("symbol", text(11), "AAPL"), ("sip_flag", LETTER, " "),
        ("best_odd_lot_indicator", LETTER, "3"), ("odd_lot_list_indicator", LETTER, "4"),
        ("odd_lot_count", COUNT2, 2)],
        best_part(PRICE8)),
    short_quote(),
    short_quote("1"),
    short_quote("4", "1"),
    short_quote("2", "2", "2", 2, nbbo_part(PRICE2, COUNT2), best_part(PRICE2), list_part(PRICE2),
                length=52 + 11 + 10 + 12),
    short_quote("0", "0", "2", 2, list_part(PRICE2), length=52 + 12),
    long_quote(),
    long_quote("3", "2", "5", "5", 2, nbbo_part(PRICE8, COUNT4), MPID_PART, best_part(PRICE8, True),
               list_part(PRICE8, True),
               length=83 + 27 + 8 + 30 + 32),
    long_quote("3", " ", "3", "3", 2, nbbo_part(PRICE8, COUNT4), best_part(PRICE8), list_part(PRICE8),
               length=83 + 27 + 22 + 24),
    long_quote("0", "2", "0", "4", 2, MPID_PART, length=91),
    message("Q", "M", "D", "mpid_quote", 77, [
        ("adf_time", TIME, NOW), ("symbol", text(11), "AAPL"), ("bid", PRICE8, 190),
        ("bid_size", COUNT4, 100),
        ("ask", PRICE8, 190.04), ("ask_size", COUNT4, 100), ("condition", LETTER, "R"),
        ("mpid", text(4), "VIRT")]),
    message("T", "M", "Q", "trade_short", 67, [
        ("trf_time", TIME, 0), ("symbol", text(5), "AAPL"), ("id", NUMBER, 17), ("price", PRICE2, 0.01),
        ("size", SHARES, 5000), ("conditions", text(4), "@O  "), ("trade_through_exempt", LETTER, " "),
        ("consolidated_change", LETTER, "7"), ("participant_change", LETTER, "0")]),
    message("T", "N", "D", "trade_long", 81, REPORT_PART, trade_part(), [
        ("consolidated_change", LETTER, "3"), ("participant_change", LETTER, "4")]),
    message("T", "O", "Q", "cancel_error", 146, REPORT_PART, [("function", LETTER, "E")], trade_part(),
            statistics_part("consolidated"), CHANGE_PART, statistics_part("participant")),
    message("T", "P", "Q", "correction", 176, REPORT_PART, trade_part(), trade_part("corrected_", "@   "),
            statistics_part("consolidated"), CHANGE_PART, statistics_part("participant")),
    message("T", "Q", "D", "as_of", 88, REPORT_PART, trade_part(conditions="@   "), [
        ("as_of_action", LETTER, "A"), ("execution_time", TIME, NOW)]),
]


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
    files = sorted((SOURCE / "vectors").iterdir())
    vectors = [json.loads(line) for file in files for line in file.read_text().splitlines()]
    path = write_pcap(tmp_path / "vectors.pcap",
                      [udp_frame(mold_packet(1 + number, [bytes.fromhex(vector["hex"])]), 25177)
                       for number, vector in enumerate(vectors)])
    got = read_messages(path)
    assert len(got) == len(vectors)
    for number, (shown, vector) in enumerate(zip(got, vectors)):
        assert shown == shown_by_listener(json.dumps({"seq": 1 + number, **vector["message"]})), vector["hex"]


def test_codes_are_shown_with_their_meanings(tmp_path):
    path = write_pcap(tmp_path / "quote.pcap", [udp_frame(mold_packet(1, [MESSAGES[17][0]]), 25177)])
    shown = run_tshark("-r", path, "-V")
    for line in ("Quote Condition: R (regular, two-sided; counts for the NBBO)",
                 "NBBO Appendage Indicator: 2 (the short NBBO appendage follows)", "Odd-Lot Side: A (ask)"):
        assert line in shown, line


@pytest.mark.parametrize("condition, count", [
    ('tessel.symbol == "AAPL"', None),
    ('tessel.symbol == "MSFT" && tessel.kind == "correction"', None),
    ('tessel.bid > 190.005 && tessel.bid < 190.015', None),
    ("tessel.bid == 190.01", None),
    ("tessel.bid < 0", None),
    ("tessel.nbbo_bid == 190.02 && tessel.nbbo_ask_size == 200", None),
    ("tessel.size == 300", None),
    ("tessel.seq == 105", 1),
    ('tessel.sip_time >= "2025-11-21 13:33:20"', None),
    ('tessel.sip_time > "2025-11-21 13:33:21"', 0),
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
        'tessel.symbol == "MSFT" && tessel.kind == "correction"': lambda m: has(m, "kind",
                                                                                lambda v: v == "correction"),
        "tessel.bid < 0": lambda m: has(m, "bid", lambda v: float(v) < 0),
        "tessel.nbbo_bid == 190.02 && tessel.nbbo_ask_size == 200": lambda m: has(m, "nbbo_bid",
                                                                                  lambda v: True),
        "tessel.size == 300": lambda m: has(m, "size", lambda v: v == "300"),
        'tessel.sip_time >= "2025-11-21 13:33:20"': lambda m: True,
    }
    wanted = tests.get(condition, lambda m: has(m, "bid", lambda v: v == "190.01"))
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
    feed sends Login Accepted by itself, so it can have a segment of its own."""
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
    """Login Accepted has a segment of its own here: Wireshark begins a new conversation behind it and would
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
    quote = MESSAGES[14][0]
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
