"""The Python example handler against damaged, late, restarted and hostile feeds, judged by the truth log."""

import os
import socket
import struct
import subprocess
import sys
from pathlib import Path

import pytest
from feed import Feed, Process, program, wait_until
from time_scale import scaled

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
EVENTS = "trf_every=7,cancel_every=20,correct_every=25,asof_every=40,band_every=1,odd_lot_every=2"


def handler(feed, out, *args):
    """The handler, started and joined."""
    words = [sys.executable, ROOT / "examples" / "python" / "handler.py", "--group", feed.group,
             "--port", feed.port,
             "--session", feed.session, "--retrans", f"127.0.0.1:{feed.retrans_port}",
             "--snapshot", f"127.0.0.1:{feed.snapshot_port}", "--out", out, *args]
    child = Process(words)
    reversed_group = "".join(f"{int(part):02X}" for part in reversed(feed.group.split(".")))
    wait_until(lambda: reversed_group in Path("/proc/net/igmp").read_text() or not child.running())
    return child


def last_of(path):
    text = path.read_bytes() if path.exists() else b""
    return text[:text.rfind(b"\n") + 1]


def catch_up(feed, out):
    """Waits until the handler has written the truth log's last line."""
    feed.fall_silent()
    last = feed.truth_lines()[-1].encode()
    wait_until(lambda: last in last_of(out))


def verdict(feed, out, *args):
    done = subprocess.run([program("tessel-judge"), feed.truth_path, out, *args], capture_output=True,
                          text=True, timeout=scaled(120), check=False)
    assert done.returncode == 0 and "AGREES" in done.stdout, done.stdout[:3000]
    return done.stdout


def test_damaged_feed_with_every_event_is_followed_to_the_byte(tmp_path):
    feed = Feed(tmp_path, "--drop-every", "7", "--dup-every", "5", "--reorder-every", "11", scenario=EVENTS,
                interval_ms=10, symbols="AAPL:190.00,BRKA:610000.00,LONGSYMBOL:40.00,PENNY:0.02")
    out = tmp_path / "out.jsonl"
    with handler(feed, out) as child, feed.start():
        for command in ("halt AAPL", "luld_pause BRKA", "wipeout N", "close PENNY", "mwcb 1", "drop 3"):
            feed.control(command)
            feed.wait_for_messages(feed.next_seq() + 300)
        catch_up(feed, out)
        assert child.stop() == 0
    verdict(feed, out)
    assert out.read_text() == feed.truth_path.read_text()


def test_one_market_center_tells_the_nbbo_without_an_appendage(tmp_path):
    feed = Feed(tmp_path, participants="Q", interval_ms=10)
    out = tmp_path / "out.jsonl"
    with handler(feed, out) as child, feed.start():
        feed.wait_for_messages(1000)
        catch_up(feed, out)
        assert child.stop() == 0
    verdict(feed, out)


def test_late_join_under_loss(tmp_path):
    out = tmp_path / "out.jsonl"
    with Feed(tmp_path, "--drop-every", "5", interval_ms=10, scenario=EVENTS) as feed:
        feed.control("halt MSFT")
        feed.wait_for_messages(1000)
        with handler(feed, out, "--late") as child:
            wait_until(lambda: last_of(out))
            feed.wait_for_messages(feed.next_seq() + 1000)
            catch_up(feed, out)
            assert child.stop() == 0
        verdict(feed, out, "--late")


def test_feed_started_again_under_the_same_session_is_a_new_run(tmp_path):
    feed = Feed(tmp_path, interval_ms=10)
    out = tmp_path / "out.jsonl"
    with handler(feed, out) as child:
        feed.start()
        feed.wait_for_messages(500)
        catch_up(feed, out)
        feed.stop()
        feed.exit_code = None
        feed.start()
        feed.wait_for_messages(700)
        catch_up(feed, out)
        assert child.stop() == 0
        assert any("started again" in line for line in child.stderr)
        feed.stop()
    assert out.read_text() == feed.truth_path.read_text()


def test_foreign_sessions_and_malformed_packets_change_nothing(tmp_path):
    feed = Feed(tmp_path, interval_ms=10)
    out = tmp_path / "out.jsonl"
    with handler(feed, out) as child, feed.start(), \
            socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
        stranger.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(feed.iface))
        session = feed.session.encode().ljust(10)
        for packet in (b"", b"short", b"OTHER     " + struct.pack("!QH", 1, 0),
                       session + struct.pack("!QH", 5, 3),
                       session + struct.pack("!QHH", 5, 1, 900) + b"1QC", b"\xff" * 1500):
            stranger.sendto(packet, (feed.group, feed.port))
        feed.wait_for_messages(500)
        catch_up(feed, out)
        assert child.stop() == 0
    verdict(feed, out)


def test_silent_retransmission_service_is_given_up(tmp_path):
    feed = Feed(tmp_path, "--drop-burst", "20:2", interval_ms=20)
    out = tmp_path / "out.jsonl"
    with handler(feed, out, "--retrans", "127.0.0.1:1") as child, feed.start():
        feed.wait_for_messages(300)
        catch_up(feed, out)
        assert child.stop() == 1
        assert not child.stderr[-1].endswith(" 0 missing")


@pytest.mark.parametrize("args", [["--retrans", "nowhere"], ["--port", "x"], ["--frobnicate"]])
def test_bad_command_line_ends_with_2(args):
    done = subprocess.run([sys.executable, ROOT / "examples" / "python" / "handler.py", *args],
                          capture_output=True, text=True, timeout=scaled(60), check=False)
    assert done.returncode == 2 and args[-1] in done.stderr


def test_commands_of_the_page_end_in_agreement(tmp_path):
    """The page's script with addresses of the test, and the programs where they are."""
    feed = Feed(tmp_path)
    text = (ROOT / "docs" / "python-handler.md").read_text()
    script = text.split("```bash\n")[1].split("```")[0]
    handler_options = f"--group {feed.group} --port {feed.port} --retrans 127.0.0.1:{feed.retrans_port} --out"
    feed_options = (f"--mcast {feed.group} --port {feed.port} --retrans-port {feed.retrans_port} "
                    f"--snapshot-port {feed.snapshot_port} --truth-out")
    name = "examples/python/handler.py"
    script = script.replace(f"{name} --out", f"{ROOT}/{name} {handler_options}")
    script = script.replace("tessel --truth-out", f"tessel {feed_options}")
    script = script.replace("build/release/", f"{os.environ['TESSEL_BIN']}/")
    done = subprocess.run(["bash", "-c", script], cwd=tmp_path, capture_output=True, text=True,
                          timeout=scaled(120), check=False)
    assert "AGREES" in done.stdout, done.stdout + done.stderr
