"""The relay between two hosts whose link has an MTU of 1500: split packets are not fragmented."""

import json
import shutil
import subprocess
import time

import pytest
from feed import program, wait_until
from net import Cable, can_make_namespaces
from time_scale import scaled

pytestmark = pytest.mark.skipif(not can_make_namespaces(), reason="no network namespaces may be made here")

LINE_GROUP, LINE_PORT, SESSION = "239.255.26.9", 26009, "UTPBENCH01"
SYMBOLS = ",".join(f"SYM{letter}:{100 + number}" for number, letter in enumerate("ABCDEFGHIJKLMNOP"))


def run_over_the_cable(tmp_path, *keys):
    """Feed and relay at one end, receiver and tshark at the other: the number of fragments, the verdict."""
    truth, out, pcap = tmp_path / "truth.jsonl", tmp_path / "out.jsonl", tmp_path / "wire.pcap"
    with Cable(mtu=1500) as cable:
        sniffer = cable.start("receiver", "tshark", "-i", "wire", "-w", pcap, "-f", "ip")
        sniffer.wait_for_line("Capture started")
        receiver = cable.start("receiver", program("tessel-listen"), "--mcast", LINE_GROUP,
                               "--port", LINE_PORT, "--iface", cable.receiver_address,
                               "--session", SESSION, "--out", out)
        receiver.wait_for_line("joined")
        line = ",".join([f"A={LINE_GROUP}:{LINE_PORT}@{cable.feed_address}", *keys])
        relay = cable.start("feed", program("tessel-relay"), "--line", line, "--end-of-session")
        relay.wait_for_line("joined")
        feed = cable.start("feed", program("tessel"), "--symbols", SYMBOLS, "--interval-ms", "20",
                           "--truth-out", truth)
        wait_until(lambda: truth.exists() and truth.read_bytes().count(b"\n") > 3000)
        assert feed.stop() == 0
        last = truth.read_text().splitlines()[-1]
        begin = time.monotonic()
        while last not in out.read_text() and time.monotonic() - begin < scaled(30):
            time.sleep(0.05)
        assert relay.stop() == 0
        receiver.stop()
        sniffer.stop()
    command = [shutil.which("tshark"), "-r", pcap, "-Y", "ip.flags.mf==1 || ip.frag_offset>0", "-T", "fields",
               "-e", "frame.number"]
    fragments = subprocess.run(command, capture_output=True, text=True, timeout=scaled(60),
                               check=True).stdout.split()
    report = tmp_path / "judged.json"
    judged = subprocess.run([program("tessel-judge"), "--early", truth, out, "--json", report],
                            capture_output=True, text=True, timeout=scaled(60), check=False)
    assert judged.returncode == 0, judged.stdout
    return len(fragments), json.loads(report.read_text())["verdict"]


def test_split_packets_are_not_fragmented(tmp_path):
    assert run_over_the_cable(tmp_path, "payload=1400") == (0, "AGREES")


def test_whole_packets_are_fragmented(tmp_path):
    fragments, verdict = run_over_the_cable(tmp_path)
    assert fragments > 10 and verdict == "AGREES"
