#!/usr/bin/env python3
"""Writes the corpora that the fuzz targets begin with: TESSEL_BIN=build/release tests/fuzz/make_corpus.py

Needed again only when a target's input changes its form. The market messages are those of a short run over
loopback, so two runs of this differ in their bytes; files whose names it does not know are left alone.
"""

import struct
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "python_support"))

from feed import Feed  # noqa: E402
from mold import Listener  # noqa: E402
from soup import SoupClient, letters, login_request, packet  # noqa: E402

SESSION = b"UTPBENCH01"
EVERYTHING = ("halt_after=1,halt_secs=1,pause_after=1,pause_secs=1,band_every=1,trf_every=2,cancel_every=3,"
              "correct_every=4,mwcb_level=1,mwcb_after=4,odd_lot_every=3,asof_every=5")

COMMAND_LINES = {
    "empty": [],
    "everything": ["--mcast", "239.1.2.3", "--port", "25177", "--iface", "127.0.0.1", "--retrans-port", "1",
                   "--snapshot-port", "65536", "--session", "ABCDEFGHIJKLM", "--symbols", "IBM:1.5,X",
                   "--quiet", "--participants", "QNDD", "--interval-ms", "-1", "--step-bps", "1e1",
                   "--seed", "9",
                   "--drop-every", "3", "--drop-burst", "4:5", "--dup-every", "-1", "--reorder-every", "0",
                   "--truth-out", "t", "--book-out", "b", "--bbo-out", "o", "--control-port", "7"],
    "missing_value": ["--quiet", "--seed"],
    "unknown_flag": ["--qiet", "1"],
    "bad_numbers": ["--seed", "99999999999999999999999", "--interval-ms", "2147483648"],
    "number_forms": [" +12abc", "0x1F", "1e400", "-1e-400", "nan(12)", "-inf", "\t7", "+", "-", ".", "1.",
                     "1e"],
    "odd_prices": ["--symbols", "A:nan,B:inf,C:-inf,D:1e300,E:0,F:-5,G:1e-9,H:655.35,I:655.36"],
    "odd_symbols": ["--symbols", ",,:,A,A,LONGERTHANELEVEN:3,B:1:2, :4,\x80:5,"],
    "wild_steps": ["--step-bps", "nan", "--symbols", "A:100"],
    "huge_steps": ["--step-bps", "1e9", "--symbols", "A:100,B:0.01"],
    "no_participants": ["--participants", ""],
    "odd_participants": ["--participants", "QQ\x80\"D z"],
    "burst_forms": ["--drop-burst", ":"],
    "burst_of_none": ["--drop-burst", "18446744073709551615:4294967297"],
}

SCENARIOS = {
    "empty": "",
    "everything": "name=all," + EVERYTHING,
    "breaker_3": "mwcb_level=3,mwcb_after=0,halt_after=2,halt_secs=0",
    "busy": "trf_every=1,cancel_every=1,correct_every=1,odd_lot_every=1,asof_every=1,band_every=1",
    "odd_entries": "halt_after,=5,=,name==x,unknown=1, halt_secs=3,halt_secs=-1,,pause_after=9x",
    "huge": "mwcb_level=4294967295,mwcb_after=1,halt_after=18446744073709551616,band_every=99999999999",
    "never_off": "odd_lot_every=0,halt_after=1,halt_secs=0,pause_after=1,pause_secs=4294967295",
}

RUN_CONFIGS = {
    "empty": "",
    "everything": '[feed]\nmcast = "239.1.2.3"\nport = 30000\niface = "10.0.0.1"\nretrans_port = 1\n'
                  'snapshot_port = 2\ncontrol_port = 3\nsession = "DAY"\nsymbols = ["AAPL:190.00", "X"]\n'
                  'participants = "QN"\ninterval_ms = -1\nstep_bps = 0.5\nseed = 9\nbook_out = "b"\n'
                  'bbo_out = "c"\ntruth_out = "t"\nquiet = true\n[faults]\ndrop_every = 10\n'
                  'drop_burst = "500:3"\ndup_every = 0\nreorder_every = 4294967295\n[scenario]\n'
                  'name = "a=b"\nhalt_after = 5\nmwcb_level = 3\n',
    "unknown": "[feed]\nintervall_ms = 5\nport = 70000\n[fedd]\n[faults]\nhalt_after = 1\n",
    "kinds": "[feed]\nport = 1.5\nquiet = 1979-05-27\nsymbols = [1, 2]\nseed = [[]]\nsession = {a = 1}\n",
    "numbers": "[feed]\nstep_bps = inf\nseed = 0xff\ninterval_ms = -9223372036854775808\nport = 1_000\n",
    "dotted": 'feed.port = 1\nfaults.drop_burst = 3\n"feed".seed = 2\n',
    "broken": "[feed\nport = = 3\n",
    "odd_texts": '[feed]\nsession = "\\u0000"\ntruth_out = "\\u0000"\n'
                 'symbols = ["", ":", "A:nan", "A:1,B:2"]\n',
}

TIMELINES = {
    "empty": "",
    "by_time": "# a day\n+2.5s halt AAPL\n+1m0.5s resume AAPL # again\n+90 pause\n+1h2m3s4ms stop\n",
    "by_number": "at seq 10000 drop 3\nat seq 500 mark here\n",
    "loops": "+1m loop 3 every 20s\n+0s halt A\n+1s loop 2 every 1s\n+0 drop\nend\nend\n"
             "at seq 100 loop 4 every 50\nat seq 0 dup\nend\n",
    "many": "loop 1000 every 1ms\nloop 1000 every 1ms\n+0 trf\nend\nend\n",
    "too_many": "loop 1001 every 1ms\nloop 1000 every 1ms\n+0 trf\nend\nend\n",
    "far": "loop 1000000 every 87600h\n+0 trf\nend\nat seq 4611686018427387904 drop\n",
    "unknown": "+1s hlat AAPL\n",
    "unfinished": "loop 3 every 1s\n+1s pause\n",
    "odd_times": "+1..5s pause\n+-1 pause\n+.5 pause\n+1h30 pause\n+99999999999999999999h pause\n",
}

CONTROL = {
    "every_command": ["pause", "+1", "resume", "drop 1", "dup 2", "reorder", "drop_every 5", "dup_every 3",
                      "reorder_every 4", "rate 50", "mark here", "stats", "halt AAPL", "+2", "resume AAPL",
                      "+3", "luld_pause BRK", "resume BRK", "resume BRK", "band AAPL", "mwcb 1", "+8",
                      "trf 2", "cancel 2", "correct 2", "+9", "close AAPL", "asof BRK", "wipeout Q", "+2",
                      "stop"],
    "breaker_of_any_level": ["mwcb 0", "+7", "mwcb 3", "resume AAPL", "+4", "mwcb 4294967295", "mwcb x"],
    "pending_without_end": ["trf 4294967295", "trf 1", "cancel -1", "correct 99999999999999999999", "+12"],
    "all_at_once": ["halt AAPL", "luld_pause AAPL", "resume AAPL", "resume AAPL", "halt AAPL", "mwcb 2",
                    "+7", "luld_pause AAPL", "wipeout D", "wipeout D", "wipeout Z", "+9", "+9"],
    "rubbish": ["", "   ", "~~", "^stop", "pause~resume", "\tpause", "PAUSE", "halt", "halt NOPE", "wipeout",
                "wipeout QN", "mark", "mark a\"b", "rate 0", "rate x", "rate 4294967296", "x" * 600],
    "faults": ["drop_every 1", "+3", "drop_every 0", "reorder 4294967295", "+3", "reorder 0", "dup_every 1",
               "reorder_every 2", "+5"],
    "wiped_while_stopped": ["halt BRK", "wipeout N", "resume BRK", "close BRK", "asof BRK", "+3",
                            "close BRK"],
}


def request(which, sequence, count, session=SESSION, more=b""):
    return bytes([which]) + struct.pack(">10sQH", session, sequence, count) + more


RETRANSMISSION = {
    "none": b"",
    "too_short": request(0, 1, 1)[:-1],
    "first": request(1, 1, 1),
    "zero": request(1, 0, 5),
    "all_of_the_young": request(1, 1, 65535),
    "past_the_end": request(1, 690, 60),
    "behind_the_end": request(1, 701, 1),
    "over_2_to_64": request(1, 2**64 - 2, 10),
    "given_up": request(0, 1, 65535),
    "oldest": request(0, 4990, 30),
    "newest": request(0, 404990, 65535),
    "other_session": request(0, 5001, 1, b"UTPBENCH02"),
    "with_more_behind": request(1, 20, 3, more=b"more"),
    "count_of_none": request(1, 20, 0),
}

SOUP = {
    "empty": b"",
    "login": login_request("LATE"),
    "login_by_session": login_request("LATE", "UTPBENCH01", "1"),
    "wrong_session": login_request("LATE", "YESTERDAY", "1"),
    "wrong_sequence": login_request("LATE", "", "2"),
    "no_name": login_request(""),
    "heartbeats_around": packet("R") + login_request("A") + packet("R") + packet("R"),
    "two_logins": login_request("A") + login_request("B"),
    "logout": packet("O"),
    "logout_behind": login_request("A") + packet("O") + packet("R"),
    "short_login": packet("L", b"LATE"),
    "length_0": login_request("A") + b"\0\0" + login_request("B"),
    "unknown_types": packet("Z", b"zz") + packet("+", b"debug") + packet("S", b"data"),
    "incomplete": b"\xff\xffLxxxx",
}


def piece(kind, data):
    return bytes([kind]) + struct.pack(">H", len(data)) + data


def wait(ms):
    return bytes([3]) + struct.pack(">H", ms)


def mold_packet(first, messages):
    blocks = b"".join(struct.pack(">H", len(each)) + each for each in messages)
    return b"@" + struct.pack(">QH", first, len(messages)) + blocks


def market_messages():
    """One message of every kind and length that a busy run makes, in their order, and those of a spin."""
    with tempfile.TemporaryDirectory() as folder:
        feed = Feed(folder, scenario=EVERYTHING, interval_ms=20, truth=False,
                    symbols="AAPL:190.00,LONGNAMES:700,BRK:1.02")
        with Listener(feed) as listener:
            with feed:
                for command in ("luld_pause BRK", "close AAPL", "wipeout Q"):
                    feed.control(command)
                feed.wait_for_messages(6000)
                with SoupClient(feed.snapshot_port) as client:
                    spin = client.log_in()[1]
            heard = listener.messages()
    kinds = {}
    for sequence in sorted(heard):
        kinds.setdefault((letters(heard[sequence])[:2], len(heard[sequence])), heard[sequence])
    return list(kinds.values()), [heard[each] for each in sorted(heard)][:40], spin


def listen_feed():
    kinds, opening, spin = market_messages()
    third = len(opening) // 3
    parts = [mold_packet(1 + at, opening[at:at + third]) for at in range(0, 3 * third, third)]
    return {
        "every_kind": b"".join(piece(0, each) for each in kinds),
        "cut_short": b"".join(piece(0, each[:-1]) for each in kinds[:12]),
        "a_spin": b"".join(piece(0, each) for each in spin[:30]),
        "in_order": b"".join(piece(1, each) for each in parts),
        "out_of_order": b"".join(piece(1, parts[at]) for at in (0, 2, 1, 1)),
        "lost": piece(1, parts[0]) + piece(1, parts[2]) + wait(10) + wait(300) * 7,
        "answered": piece(1, parts[0]) + piece(1, parts[2]) + wait(10) + piece(2, parts[1]),
        "heartbeat_tells_of_a_gap": (piece(1, parts[0]) + piece(1, mold_packet(40, [])) + wait(10) +
                                     wait(2000)),
        "end_of_session": piece(1, parts[0]) + piece(1, b"@" + struct.pack(">QH", 14, 0xffff)),
        "last_numbers": piece(1, mold_packet(1, [])) + piece(1, mold_packet(2**64 - 2, [b"x"])) + wait(9) * 3,
        "malformed": piece(1, parts[0][:-3]) + piece(1, SESSION) + piece(1, b"X" + parts[0]),
    }


def write(target, files):
    folder = HERE / "corpus" / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, data in files.items():
        (folder / name).write_bytes(data)
    print(f"{target}: {len(files)} files, {sum(len(data) for data in files.values())} bytes")


def lines(rows):
    return {name: "\n".join(row).encode("latin-1") for name, row in rows.items()}


def main():
    write("command_line", lines(COMMAND_LINES))
    write("scenario", {name: text.encode() for name, text in SCENARIOS.items()})
    write("run_config", {name: text.encode() for name, text in RUN_CONFIGS.items()})
    write("timeline", {name: text.encode() for name, text in TIMELINES.items()})
    write("control", lines(CONTROL))
    write("retransmission", RETRANSMISSION)
    write("soup_stream", SOUP)
    write("listen_feed", listen_feed())


if __name__ == "__main__":
    main()
