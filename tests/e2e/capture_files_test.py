"""tessel-capture: files that are the same every time, read by outside programs, and judged."""

import hashlib
import json
import os
import re
import struct
import subprocess
from pathlib import Path

import pytest

from capture import read_fields, run_tshark
from feed import Feed, program
from time_scale import scaled

SOURCE = Path(os.environ["TESSEL_SOURCE"])
GOLDEN = SOURCE / "tests" / "golden" / "capture.json"
START_NS = 1_767_623_400 * 1_000_000_000  # 2026-01-05T09:30:00-05:00
CHECKSUMS = ("-o", "ip.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE", "-o",
             "tcp.check_checksum:TRUE")

# Two minutes with every kind of event that the feed has.
EVERYTHING = ("halt_after=20,halt_secs=3,pause_after=30,pause_secs=3,band_every=5,trf_every=3,cancel_every=7,"
              "correct_every=5,mwcb_level=1,mwcb_after=60,odd_lot_every=3,asof_every=9")
TIMELINE = """\
# every command that a scenario does not give
+1s halt MSFT
+4s resume MSFT
+5s luld_pause TSLA
+8s resume TSLA
+10.25s band AAPL
at seq 2000 drop 2
at seq 2500 dup 2
at seq 3000 reorder 2
+12s wipeout K
+13s asof AAPL
+13s trf 2
+13s cancel 1
+13s correct 1
+14s mark here
+15s pause
+18s resume
+19s rate 50
+100s close LONGSYMBOLS
+110s rate 100
"""
MIX = ("--drop-every", "17", "--dup-every", "11", "--reorder-every", "13", "--drop-burst", "300:4")


def make(*args, scenario=None, status=0, text=True, **more):
    """Runs tessel-capture; returns what it wrote to standard error and standard output."""
    env = {name: value for name, value in os.environ.items() if name != "TESSEL_SCENARIO"}
    if scenario is not None:
        env["TESSEL_SCENARIO"] = scenario
    done = subprocess.run([program("tessel-capture"), *map(str, args)], env=env, capture_output=True,
                          text=text, timeout=scaled(240), check=False, **more)
    assert done.returncode == status, done.stderr
    return done


def listen(path, *args, status=0):
    done = subprocess.run([program("tessel-listen"), "--from-pcap", str(path), *map(str, args)],
                          capture_output=True, text=True, timeout=scaled(240), check=False)
    assert done.returncode == status, done.stderr
    return done


def judge(truth, output, *args):
    done = subprocess.run([program("tessel-judge"), str(truth), str(output), *args], capture_output=True,
                          text=True, timeout=scaled(240), check=False)
    assert done.returncode == 0, done.stdout + done.stderr


def records(path):
    """The frames of a classic capture with nanoseconds, each with its time."""
    data = Path(path).read_bytes()
    assert struct.unpack("<I", data[:4]) == (0xa1b23c4d,)
    at = 24
    while at < len(data):
        seconds, ns, length, whole = struct.unpack("<IIII", data[at:at + 16])
        assert length == whole
        yield seconds * 1_000_000_000 + ns, data[at + 16:at + 16 + length]
        at += 16 + length


def mold_messages(path, port=25177):
    """The numbered messages of the group's packets in order of the file, each with its packet's time."""
    for stamp, frame in records(path):
        if frame[23] != 17 or struct.unpack(">H", frame[36:38]) != (port,):
            continue
        payload = frame[42:]
        number, count = struct.unpack(">QH", payload[10:20])
        at = 20
        for index in range(count):
            length, = struct.unpack(">H", payload[at:at + 2])
            yield stamp, number + index, payload[at + 2:at + 2 + length]
            at += 2 + length


@pytest.fixture(scope="module")
def everything(tmp_path_factory):
    """The two-minute run with every kind of event, damage and repair."""
    folder = tmp_path_factory.mktemp("everything")
    (folder / "events.timeline").write_text(TIMELINE)
    symbols = "AAPL:190.00,MSFT:410.00,TSLA:250.00,BRKA:700.00,LONGSYMBOLS:25.00"
    options = ["--duration", "2m", "--symbols", symbols, "--script", folder / "events.timeline",
               "--join-at", "45s", "--join-at", "1m30.5s", "--retransmit", *MIX]
    done = make(*options, "--pcap", folder / "all.pcap", "--truth-out", folder / "all.jsonl", "--plot",
                folder / "all.svg", scenario=EVERYTHING)
    return folder, options, done.stderr


def digest(path):
    return hashlib.sha256(Path(path).read_bytes()).hexdigest()


def test_two_minutes_of_everything_have_the_kept_hashes(everything):
    """The same on every compiler and processor. TESSEL_UPDATE_GOLDEN=1 writes today's."""
    folder, _, _ = everything
    got = {name: digest(folder / name) for name in ("all.pcap", "all.jsonl", "all.svg")}
    if os.environ.get("TESSEL_UPDATE_GOLDEN"):
        GOLDEN.write_text(json.dumps(got, indent=1) + "\n")
    assert got == json.loads(GOLDEN.read_text())


def test_same_options_give_the_same_bytes_through_a_pipe_and_compressed(everything, tmp_path):
    folder, options, _ = everything
    done = make(*options, "--pcap", "-", scenario=EVERYTHING, text=False)
    assert hashlib.sha256(done.stdout).hexdigest() == digest(folder / "all.pcap")
    make(*options, "--pcap", tmp_path / "a.pcap.zst", "--truth-out", tmp_path / "a.jsonl.zst",
         scenario=EVERYTHING)
    for packed, plain in (("a.pcap.zst", "all.pcap"), ("a.jsonl.zst", "all.jsonl")):
        unpacked = subprocess.run(["zstd", "-dc", tmp_path / packed], capture_output=True, check=True).stdout
        assert unpacked == (folder / plain).read_bytes()


def test_every_kind_of_event_is_in_it(everything):
    folder, _, log = everything
    lines = listen(folder / "all.pcap", "--decode", "--snapshot", "127.0.0.1:25179", "--retrans",
                   "127.0.0.1:25178").stdout.splitlines()
    assert {json.loads(line)["kind"] for line in lines} >= {
        "start_of_day", "session_open", "wipe_out", "decline_levels", "directory_short", "directory_long",
        "indicator", "trading_action", "price_band", "collar", "mwcb_status", "end_of_snapshot",
        "quote_short", "quote_long", "mpid_quote", "trade_short", "trade_long", "cancel_error",
        "correction", "as_of"}
    for text in ("halted", "tessel fault: dropped", "tessel fault: duplicated", "tessel fault: reordered",
                 "bench: mark here", "Snap-Shot spin to 'LATE'"):
        assert text in log, text
    assert "[tessel] msgs" not in log and "bench: stats" not in log
    counters = [line for line in log.splitlines() if line.startswith("tessel-capture: ")]
    assert counters == [log.splitlines()[-1]]


def test_summary_counts_what_the_file_holds(everything):
    folder, _, log = everything
    found = re.fullmatch(r"tessel-capture: (\d+) messages, (\d+) packets, (\d+) bytes, (\d+) dropped, "
                         r"(\d+) duplicated, (\d+) reordered; 120 s of market in [0-9.]+ s, \d+ messages/s",
                         log.splitlines()[-1])
    messages, packets, size, dropped, duplicated, reordered = map(int, found.groups())
    frames = list(records(folder / "all.pcap"))
    assert packets == len(frames)
    assert size == (folder / "all.pcap").stat().st_size
    assert dropped == log.count("tessel fault: dropped")
    assert duplicated == log.count("tessel fault: duplicated")
    assert reordered == log.count("tessel fault: reordered")
    assert messages >= max(number for _, number, _ in mold_messages(folder / "all.pcap"))


def test_stamps_rise_and_lie_after_the_times_in_the_messages(everything):
    folder, _, _ = everything
    stamps = [stamp for stamp, _ in records(folder / "all.pcap")]
    assert all(before < after for before, after in zip(stamps, stamps[1:]))
    assert stamps[0] >= START_NS
    for stamp, _, message in mold_messages(folder / "all.pcap"):
        assert struct.unpack(">Q", message[5:13])[0] < stamp


def test_outside_programs_find_it_in_order(everything):
    folder, _, _ = everything
    info = subprocess.run(["capinfos", folder / "all.pcap"], capture_output=True, text=True,
                          check=True).stdout
    assert "nanosecond pcap" in info and re.search(r"Strict time order: +True", info)
    assert re.search(r"File encapsulation: +Ethernet", info)
    bad = ("_ws.malformed || ip.checksum.status == \"Bad\" || udp.checksum.status == \"Bad\" || "
           "tcp.checksum.status == \"Bad\" || tcp.analysis.flags || tessel.wrong_length || "
           "tessel.unknown_kind || tessel.cut_block || tessel.short_packet")
    assert run_tshark("-r", folder / "all.pcap", *CHECKSUMS, "-Y", bad) == ""
    rows = read_fields(folder / "all.pcap", ["udp.checksum.status", "tcp.checksum.status", "_ws.malformed",
                                             "tcp.analysis.flags"], *CHECKSUMS, dissector=False)
    assert len(rows) == len(list(records(folder / "all.pcap")))
    for udp, tcp, malformed, flags in rows:
        assert (udp + tcp, malformed, flags) == (["1"], [], [])


def test_without_faults_every_number_is_in_it_once(tmp_path):
    path = tmp_path / "clean.pcap"
    make("--duration", "30s", "--vlan", "7", "--pcap", path)
    rows = read_fields(path, ["tessel.seq"], "-Y", "tessel.seq")
    numbers = [int(number) for row in rows for number in row[0]]
    assert numbers == list(range(1, len(numbers) + 1)) and len(numbers) > 1000
    rows = read_fields(path, ["vlan.id", "eth.dst", "eth.src", "ip.src", "ip.dst", "udp.dstport"], "-c", "1")
    assert rows == [[["7"], ["01:00:5e:7f:19:b1"], ["02:00:00:00:00:01"], ["127.0.0.1"], ["239.255.25.177"],
                     ["25177"]]]


def test_ticks_fall_on_their_time(tmp_path):
    path = tmp_path / "ticks.pcap"
    for interval, step, expected in ((250, 250, 39), (0, 5, 1999), (-1, None, 0)):
        make("--symbols", "AAPL:190", "--duration", "10s", "--interval-ms", interval, "--pcap", path)
        ticks = []
        for stamp, _, message in mold_messages(path):
            moment = struct.unpack(">Q", message[5:13])[0] - START_NS
            assert 0 < stamp - START_NS - moment < 1_000_000
            if moment >= 1_000_000 and (not ticks or moment // 1_000_000 != ticks[-1]):
                ticks.append(moment // 1_000_000)
        assert ticks == ([k * step for k in range(1, expected + 1)] if step else []), interval
        beats = [stamp - START_NS for stamp, frame in records(path) if frame[60:62] == b"\0\0"]
        assert [beat // 1_000_000 for beat in beats] == ([] if step else [1000 * k for k in range(1, 10)])


def test_faults_change_neither_messages_nor_truth(tmp_path):
    common = ("--duration", "30s", "--seed", "5")
    make(*common, "--pcap", tmp_path / "clean.pcap", "--truth-out", tmp_path / "clean.jsonl")
    make(*common, *MIX, "--retransmit", "--pcap", tmp_path / "mix.pcap", "--truth-out",
         tmp_path / "mix.jsonl")
    assert (tmp_path / "clean.jsonl").read_bytes() == (tmp_path / "mix.jsonl").read_bytes()
    clean = {number: message for _, number, message in mold_messages(tmp_path / "clean.pcap")}
    mixed = {number: message for _, number, message in mold_messages(tmp_path / "mix.pcap")}
    assert len(mixed) < len(clean)
    assert all(clean[number] == message for number, message in mixed.items())


def without_times(lines):
    """Decoded messages with every time but the number taken out."""
    return [{name: value for name, value in json.loads(line).items() if not name.endswith("_time_ns")}
            for line in lines]


def test_live_feed_and_capture_make_the_same_messages(tmp_path):
    options = ("--interval-ms", "10", "--seed", "11")
    scenario = "trf_every=3,cancel_every=7,correct_every=5,asof_every=9,odd_lot_every=3"
    count = 3000
    with Feed(tmp_path, *options, scenario=scenario) as feed:
        live = subprocess.run([program("tessel-listen"), *feed.receiver_args(), "--retrans",
                               f"127.0.0.1:{feed.retrans_port}", "--decode", "--count", str(count)],
                              capture_output=True, text=True, timeout=scaled(240),
                              check=True).stdout.splitlines()
    make(*options, "--duration", "20s", "--pcap", tmp_path / "a.pcap", "--truth-out", tmp_path / "a.jsonl",
         scenario=scenario)
    made = listen(tmp_path / "a.pcap", "--decode").stdout.splitlines()
    assert len(live) == count < len(made)
    assert without_times(live) == without_times(made[:count])
    truth = (tmp_path / "truth.jsonl").read_text().splitlines()
    assert (tmp_path / "a.jsonl").read_text().splitlines()[:len(truth)] == truth and len(truth) > 2000


def test_outputs_are_replaced_and_failures_are_named(tmp_path):
    truth = tmp_path / "t.jsonl"
    truth.write_text("what was there before\n" * 100_000)
    make("--duration", "1s", "--truth-out", truth)
    assert truth.read_text().startswith('{"seq":')
    for option in ("--pcap", "--truth-out", "--plot"):
        done = make("--duration", "1s", option, "/nonexistent/file", status=1)
        assert "tessel-capture: /nonexistent/file: No such file or directory\n" in done.stderr
        done = make("--duration", "20s", option, "/dev/full", status=1)
        assert "tessel-capture: /dev/full: No space left on device\n" in done.stderr


def test_faulty_timeline_is_refused_before_anything_is_made(tmp_path):
    script, pcap = tmp_path / "bad.timeline", tmp_path / "a.pcap"
    script.write_text("+1s halt AAPL\n+2s hold AAPL\n")
    done = make("--script", script, "--pcap", pcap, status=2)
    assert done.stderr.startswith(f"tessel-capture: {script}:2: ") and "hold" in done.stderr
    assert not pcap.exists()
    script.write_text("+1s halt NOBODY\n")
    done = make("--script", script, "--pcap", pcap, status=2)
    assert done.stderr.startswith(f"tessel-capture: {script}:1: ") and "NOBODY" in done.stderr
    assert not pcap.exists()


def test_help_names_every_option():
    text = make("--help").stdout
    for option in ("--mcast --port --iface --retrans-port --snapshot-port --session --symbols --participants "
                   "--interval-ms --step-bps --seed --drop-every --drop-burst --dup-every --reorder-every "
                   "--quiet --start --duration --pcap --truth-out --script --join-at --retransmit --src-ip "
                   "--src-port --src-mac --vlan --plot --version").split():
        assert re.search(rf"(?<![\w-]){option}(?![\w-])", text), option
    assert "Examples:" in text and "Exit status:" in text


def test_command_beyond_the_end_is_reported(tmp_path):
    script = tmp_path / "a.timeline"
    script.write_text("+1s pause\n+2s resume\n+5s halt AAPL\nat seq 9999 drop 1\n")
    log = make("--script", script, "--duration", "3s", "--pcap", tmp_path / "a.pcap").stderr.splitlines()
    assert log[-2] == f"tessel-capture: 2 commands of {script} were not reached; the first is in line 3"
    assert "; 3 s of market in " in log[-1]


def test_outputs_that_cannot_be_opened_are_found_before_the_run(tmp_path):
    for option in ("--pcap", "--truth-out", "--plot"):
        path = tmp_path / "missing" / "file"
        log = make(option, path, "--duration", "100h", status=1).stderr
        assert log == f"tessel-capture: {path}: No such file or directory\n"


def test_timeline_commands_fall_on_their_moment(tmp_path):
    script = tmp_path / "a.timeline"
    script.write_text("+2.5s halt AAPL\n+2.5s mark same\nat seq 60 mark number\n+3s stop\n")
    make("--script", script, "--duration", "1h", "--pcap", tmp_path / "a.pcap", "--truth-out",
         tmp_path / "a.jsonl")
    halts = [struct.unpack(">Q", message[5:13])[0] - START_NS
             for _, _, message in mold_messages(tmp_path / "a.pcap") if message[1:3] == b"AH"]
    assert 2_500_000_000 <= halts[-1] < 2_501_000_000
    lines = [json.loads(line) for line in (tmp_path / "a.jsonl").read_text().splitlines()]
    marks = {line["mark"]: line["seq"] for line in lines if "mark" in line}
    assert set(marks) == {"same", "number"} and 59 <= marks["number"] < 100
    last, _ = list(records(tmp_path / "a.pcap"))[-1]
    assert last < START_NS + 3_000_000_000
