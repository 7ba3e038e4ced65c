"""tessel-listen reads captures of every kind, and says what a capture does not hold."""

import json
import os
import shutil
import struct
import subprocess

import pytest

from capture import _ipv4, udp_frame, write_pcap
from capture_files_test import MIX, judge, listen, make, records
from feed import program, wait_until
from time_scale import scaled

RETRANS = ("--retrans", "127.0.0.1:25178")
SNAPSHOT = ("--snapshot", "127.0.0.1:25179")


@pytest.fixture(scope="module")
def clean(tmp_path_factory):
    folder = tmp_path_factory.mktemp("clean")
    make("--duration", "10s", "--pcap", folder / "a.pcap", "--truth-out", folder / "a.jsonl")
    return folder


def last_line(done):
    return done.stderr.splitlines()[-1]


def converted(clean, tmp_path, *args):
    path = tmp_path / "converted"
    subprocess.run(["editcap", *args, clean / "a.pcap", path], check=True, capture_output=True)
    return path


def test_capture_of_another_group_says_which_it_holds(clean):
    log = listen(clean / "a.pcap", "--mcast", "239.1.1.1", status=1).stderr.splitlines()
    packets = len(list(records(clean / "a.pcap")))
    assert f"tessel-listen: the capture has {packets} packets to 239.255.25.177:25177; --mcast and --port " \
           "name the feed's" in log
    assert log[-1] == "tessel-listen: no packets received"


@pytest.mark.parametrize("args", [("-F", "pcapng"), ("-F", "pcap"), ("-F", "nsecpcap")])
def test_every_format_gives_the_same_lines(clean, tmp_path, args):
    truth = (clean / "a.jsonl").read_text()
    assert listen(converted(clean, tmp_path, *args), "--out", "-").stdout == truth


def test_pipes_compressed_files_and_both_byte_orders_are_read(clean, tmp_path):
    truth = (clean / "a.jsonl").read_text()
    subprocess.run(["zstd", "-q", clean / "a.pcap", "-o", tmp_path / "a.pcap.zst"], check=True)
    assert listen(tmp_path / "a.pcap.zst", "--out", "-").stdout == truth
    for path in (clean / "a.pcap", tmp_path / "a.pcap.zst"):
        with open(path, "rb") as file:
            done = subprocess.run([program("tessel-listen"), "--from-pcap", "-", "--out", "-"], stdin=file,
                                  capture_output=True, text=True, timeout=scaled(120), check=False)
        assert (done.returncode, done.stdout) == (0, truth)
    with open(tmp_path / "big.pcap", "wb") as file:
        file.write(struct.pack(">IHHiIII", 0xa1b23c4d, 2, 4, 0, 0, 262144, 1))
        for stamp, frame in records(clean / "a.pcap"):
            file.write(struct.pack(">IIII", stamp // 10**9, stamp % 10**9, len(frame), len(frame)) + frame)
    assert listen(tmp_path / "big.pcap", "--out", "-").stdout == truth


@pytest.mark.parametrize("link_type, before", [
    (0, struct.pack("<I", 2)), (0, struct.pack(">I", 2)), (1, None), (12, b""), (101, b""),
    (108, struct.pack(">I", 2)), (113, bytes(14) + b"\x08\x00"), (228, b""), (276, b"\x08\x00" + bytes(18))])
def test_every_link_type_gives_the_same_lines(clean, tmp_path, link_type, before):
    path = tmp_path / "link.pcap"
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xa1b23c4d, 2, 4, 0, 0, 262144, link_type))
        for stamp, frame in records(clean / "a.pcap"):
            data = frame if before is None else before + frame[14:]
            file.write(struct.pack("<IIII", stamp // 10**9, stamp % 10**9, len(data), len(data)) + data)
    assert listen(path, "--out", "-").stdout == (clean / "a.jsonl").read_text()


def test_other_link_types_are_refused_with_their_number(clean, tmp_path):
    path = converted(clean, tmp_path, "-T", "user0")
    done = listen(path, status=2)
    assert done.stderr.startswith(f"tessel-listen: {path}: link type 147 ") and done.stdout == ""
    (tmp_path / "text").write_text("no capture at all, only text\n")
    assert "no capture that can be read" in listen(tmp_path / "text", status=2).stderr


def fragments(frame, size, identification):
    """The frame's packet in pieces of `size` bytes, as frames."""
    source, destination = (".".join(map(str, frame[at:at + 4])) for at in (26, 30))
    body = frame[34:]
    for at in range(0, len(body), size):
        piece = _ipv4(17, body[at:at + size], source, destination)
        more = 0x2000 if at + size < len(body) else 0
        yield piece[:18] + struct.pack(">HH", identification, more | at // 8) + piece[22:]


def test_fragments_are_put_together(clean, tmp_path):
    frames, whole = [], 0
    for number, (_, frame) in enumerate(records(clean / "a.pcap")):
        pieces = list(fragments(frame, 536, number))
        frames += reversed(pieces)
        whole += len(pieces) > 1
    assert whole > 20
    path = write_pcap(tmp_path / "pieces.pcap", frames)
    assert listen(path, "--out", "-").stdout == (clean / "a.jsonl").read_text()


def test_fragment_that_never_comes_is_counted(clean, tmp_path):
    stamped = [frame for _, frame in records(clean / "a.pcap")]
    # The last packet, so that no later one shows the gap: only the count says that something is missing.
    path = write_pcap(tmp_path / "lost.pcap", stamped[:-1] + list(fragments(stamped[-1], 256, 9))[:-1])
    done = listen(path, "--out", tmp_path / "out", status=1)
    assert "tessel-listen: 1 packets whose fragments never completed\n" in done.stderr
    assert "nothing missing" not in last_line(done)
    assert (tmp_path / "out").read_text() == "".join(
        (clean / "a.jsonl").read_text().splitlines(True)[:len((tmp_path / "out").read_text().splitlines())])


def test_packets_cut_by_the_snap_length_are_counted(clean, tmp_path):
    sizes = [len(frame) for _, frame in records(clean / "a.pcap")]
    done = listen(converted(clean, tmp_path, "-s", "1000"), status=1)
    assert f"tessel-listen: {sum(size > 1000 for size in sizes)} packets cut\n" in done.stderr
    assert "nothing missing" not in last_line(done)


@pytest.mark.parametrize("kind", ["pcap", "pcapng", "zst"])
def test_file_that_ends_inside_a_record_is_read_up_to_there(clean, tmp_path, kind):
    path = tmp_path / "cut"
    source = clean / "a.pcap"
    if kind == "pcapng":
        source = converted(clean, tmp_path, "-F", "pcapng")
    data = source.read_bytes()
    if kind == "zst":
        subprocess.run(["zstd", "-q", source, "-o", tmp_path / "whole.zst"], check=True)
        data = (tmp_path / "whole.zst").read_bytes()
    path.write_bytes(data[:-100])
    done = listen(path, "--out", "-", status=1)
    assert f"tessel-listen: {path}: truncated after " in done.stderr
    assert "nothing missing" not in last_line(done)
    truth = (clean / "a.jsonl").read_text()
    assert truth.startswith(done.stdout) and (kind == "zst" or len(done.stdout) > len(truth) * 0.9)


@pytest.mark.parametrize("faults", [
    ("--drop-every", "5"), ("--drop-burst", "1:3"), ("--drop-burst", "50:40"), ("--dup-every", "3"),
    ("--reorder-every", "4"), MIX, ("--drop-every", "2", "--reorder-every", "3")], ids=" ".join)
def test_replies_in_the_capture_make_up_for_every_fault_mix(tmp_path, faults):
    path, truth, out = tmp_path / "a.pcap", tmp_path / "a.jsonl", tmp_path / "out.jsonl"
    make("--duration", "20s", *faults, "--retransmit", "--pcap", path, "--truth-out", truth)
    assert last_line(listen(path, *RETRANS, "--out", out)) == "tessel-listen: nothing missing"
    judge(truth, out)
    if "--drop-every" in faults:
        assert "nothing missing" not in last_line(listen(path, status=1))
        other = listen(path, "--retrans", "127.0.0.2:25178", status=1)
        assert " 0 recovered" in other.stderr, "replies of another host"


def test_reader_joins_late_by_the_first_whole_session(tmp_path):
    path, truth, out = tmp_path / "a.pcap", tmp_path / "a.jsonl", tmp_path / "out.jsonl"
    make("--duration", "30s", "--join-at", "10s", "--join-at", "20s", "--drop-every", "9", "--retransmit",
         "--pcap", path, "--truth-out", truth)
    done = listen(path, *SNAPSHOT, *RETRANS, "--out", out)
    covered = int(done.stderr.split("covers everything up to ")[1].split()[0])
    assert json.loads(out.read_text().splitlines()[0])["seq"] == covered + 1
    judge(truth, out, "--late")
    # Without the first session's beginning, the second one is the first that is whole.
    rest = write_pcap(tmp_path / "rest.pcap", [frame for stamp, frame in records(path)
                                               if not (frame[23] == 6 and frame[47] & 2
                                                       and struct.pack(">H", 50001) in frame[34:38])])
    later = listen(rest, *SNAPSHOT, *RETRANS, "--out", out)
    assert int(later.stderr.split("covers everything up to ")[1].split()[0]) > covered
    judge(truth, out, "--late")


def test_capture_without_a_whole_session_is_incomplete(clean):
    done = listen(clean / "a.pcap", *SNAPSHOT, status=1)
    assert "no whole Snap-Shot session of 127.0.0.1:25179" in done.stderr
    assert "nothing missing" not in last_line(done)


def test_other_traffic_is_no_loss(clean, tmp_path):
    frames = [frame for _, frame in records(clean / "a.pcap")]
    frames[3:3] = [udp_frame(b"x" * 100, 5353), bytes(12) + b"\x86\xdd" + bytes(60), bytes(60)]
    path = write_pcap(tmp_path / "other.pcap", frames)
    assert listen(path, "--out", "-").stdout == (clean / "a.jsonl").read_text()


def in_namespace(name, *command):
    return ["ip", "netns", "exec", name, *map(str, command)]


@pytest.fixture
def two_hosts():
    """Two network namespaces with a veth pair of MTU 9000 between them."""
    names = [f"tessel-{side}-{os.getpid()}" for side in "ab"]

    def run(*words):
        subprocess.run(list(words), check=True, capture_output=True, text=True)

    try:
        for name in names:
            run("ip", "netns", "add", name)
    except (subprocess.CalledProcessError, FileNotFoundError) as refusal:
        pytest.skip(f"network namespaces are not permitted here: {refusal}")
    try:
        run("ip", "link", "add", "veth0", "netns", names[0], "type", "veth", "peer", "name", "veth0", "netns",
            names[1])
        for number, name in enumerate(names, 1):
            run("ip", "-n", name, "address", "add", f"10.77.0.{number}/24", "dev", "veth0")
            run("ip", "-n", name, "link", "set", "veth0", "mtu", "9000", "up")
            run("ip", "-n", name, "link", "set", "lo", "up")
        yield names
    finally:
        for name in names:
            subprocess.run(["ip", "netns", "delete", name], check=False, capture_output=True)


def test_capture_played_back_onto_a_network_is_heard_whole(two_hosts, tmp_path):
    if shutil.which("tcpreplay") is None:
        pytest.skip("tcpreplay is not installed")
    player, hearer = two_hosts
    path, truth, out = tmp_path / "a.pcap", tmp_path / "a.jsonl", tmp_path / "out.jsonl"
    make("--duration", "20s", "--src-ip", "10.77.0.1", "--pcap", path, "--truth-out", truth)
    count = len([line for line in truth.read_text().splitlines()])
    messages = sum(struct.unpack(">H", frame[60:62])[0] for _, frame in records(path))
    child = subprocess.Popen(in_namespace(hearer, program("tessel-listen"), "--iface", "10.77.0.2",
                                          "--out", out, "--count", messages, "--seconds", "60"),
                             stderr=subprocess.PIPE, text=True)
    try:
        group = "B119FFEF"  # 239.255.25.177, as the kernel writes it

        def joined():
            text = subprocess.run(in_namespace(hearer, "cat", "/proc/net/igmp"), capture_output=True,
                                  text=True, check=True).stdout
            return group in text.upper()
        wait_until(joined, 60, "the membership")
        done = subprocess.run(in_namespace(player, "tcpreplay", "--intf1=veth0", "--pps=2000", path),
                              capture_output=True, text=True, timeout=scaled(120), check=False)
        assert done.returncode == 0, done.stderr
        _, log = child.communicate(timeout=scaled(120))
    finally:
        child.kill()
    assert child.returncode == 0, log
    assert len(out.read_text().splitlines()) == count
    judge(truth, out)
