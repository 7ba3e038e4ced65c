"""tessel-console as a consumer of the feed: late joins, gaps, a feed that goes and comes back, the end."""

import signal
import subprocess
import time

import pytest
from console import Console
from feed import Feed, Process, free_port, program, wait_until
from time_scale import scaled

GONE_SECONDS = 5


def test_feed_gone_is_known_within_five_seconds_and_its_return_too(tmp_path):
    with Feed(tmp_path, truth=False) as feed, Console(feed) as console:
        console.wait_for(lambda state: state["feed"]["up"])
        feed.process.send_signal(signal.SIGSTOP)
        begin = time.monotonic()
        console.wait_for(lambda state: not state["feed"]["up"])
        assert 2 < time.monotonic() - begin < scaled(GONE_SECONDS)
        assert console.metrics()["tessel_up"] == 0
        assert console.state()["total"] == 3
        feed.process.send_signal(signal.SIGCONT)
        console.wait_for(lambda state: state["feed"]["up"])
        assert console.state()["receiver"]["lost"] == 0
        assert console.state()["feed"]["runs"] == 1


def test_command_without_a_feed_is_502_and_the_page_stays(tmp_path):
    with Feed(tmp_path, truth=False) as feed, Console(feed) as console:
        console.wait_for(lambda state: state["feed"]["up"])
        assert feed.stop() == 0
        status, answer = console.command("halt AAPL")
        assert status == 502 and "nobody answers" in answer["error"]
        console.wait_for(lambda state: not state["feed"]["up"] and not state["control"]["up"])
        assert console.get("/")[0] == 200


@pytest.mark.parametrize("services", [True, False], ids=["with services", "without services"])
def test_new_run_under_the_same_session_begins_the_market_anew(tmp_path, services):
    with Feed(tmp_path, truth=False, symbols="OLD:10,BOTH:20") as feed:
        with Console(feed, retrans=services, snapshot=services) as console:
            # Enough that the numbers of the new run are not taken for late ones.
            feed.wait_for_messages(100)
            console.wait_for(lambda state: state["total"] == 2)
            console.command("halt BOTH")
            wait_until(lambda: console.instrument("BOTH")["halts"], what="the halt")
            assert feed.stop() == 0
            feed._options["--symbols"] = "NEW:30,BOTH:20"
            feed.start()
            state = console.wait_for(lambda state: state["feed"]["runs"] == 2 and state["total"] == 2
                                     and state["feed"]["up"])
            assert {row["symbol"] for row in state["instruments"]} == {"BOTH", "NEW"}
            assert {row["status"] for row in state["instruments"]} == {"T"}
            assert console.instrument("BOTH")["halts"] == []
            console.wait_for_line("the market begins anew")


def test_console_started_before_the_feed_waits_for_it(tmp_path):
    feed = Feed(tmp_path, truth=False)
    with Console(feed) as console:
        state = console.state()
        assert state["feed"] == {"up": False, "session": feed.session, "next_seq": 0, "runs": 1}
        assert state["total"] == 0 and state["latency"] is None and not state["control"]["up"]
        with feed.start():
            console.wait_for(lambda state: state["feed"]["up"] and state["total"] == 3
                             and state["control"]["up"])


def test_late_join_by_snapshot_has_the_market_and_goes_on_without_loss(tmp_path):
    with Feed(tmp_path, symbols=",".join(f"S{number:03}:50" for number in range(200))) as feed:
        feed.control("halt S007")
        feed.wait_for_messages(3000)
        with Console(feed) as console:
            console.wait_for_line("Snap-Shot of")
            state = console.wait_for(lambda state: state["total"] == 200, query="?limit=500")
            assert state["instruments"][7]["status"] == "H"
            before = state["receiver"]["messages"]
            state = console.wait_for(lambda state: state["receiver"]["messages"] > before + 500)
            assert state["receiver"]["lost"] == 0


def test_prices_are_those_of_the_truth_log(tmp_path):
    with Feed(tmp_path) as feed, Console(feed) as console:
        feed.wait_for_messages(400)
        last = feed.fall_silent() - 1
        state = console.wait_for(lambda state: state["feed"]["next_seq"] == last + 1
                                 and state["receiver"]["gaps"] == 0)
        lines = {}
        for line in feed.truth():
            if "nbbo" in line:
                lines[line["symbol"]] = line
        for row in state["instruments"]:
            line = lines[row["symbol"]]
            assert [row["bid"], row["bid_size"], row["ask"], row["ask_size"]] == line["nbbo"]
            assert row["status"] == line["status"]
            assert row["band"] == line.get("band")


def test_dropped_packets_are_gaps_recoveries_and_a_mark(tmp_path):
    with Feed(tmp_path, truth=False) as feed, Console(feed) as console:
        console.wait_for(lambda state: state["receiver"]["messages"] > 20 and state["control"]["up"])
        assert console.command("drop 3")[1]["ok"]
        state = console.wait_for(lambda state: state["faults"]["dropped"] == 3
                                 and state["receiver"]["recovered"] > 0)
        assert state["receiver"]["gaps"] > 0 and state["receiver"]["lost"] == 0
        state = console.wait_for(lambda state: any(mark["kind"] == "fault" for mark in state["marks"]))
        texts = {mark["kind"]: mark["text"] for mark in state["marks"]}
        assert texts["command"] == "drop 3" and "dropped" in texts["fault"]


def test_dropped_packets_without_retransmission_are_lost(tmp_path):
    with Feed(tmp_path, truth=False) as feed, Console(feed, retrans=False, snapshot=False) as console:
        console.wait_for(lambda state: state["receiver"]["messages"] > 20)
        console.command("drop 2")
        console.wait_for(lambda state: state["receiver"]["lost"] > 0)
        assert console.metrics()["tessel_receiver_lost_total"] > 0


def test_latencies_come_with_the_packets(tmp_path):
    with Feed(tmp_path, truth=False) as feed, Console(feed) as console:
        state = console.wait_for(lambda state: state["latency"] is not None)
        whole = state["latency"]
        for latency in (whole, whole["sip_to_kernel"], whole["kernel_to_taken"]):
            values = [latency[name] for name in ("p50", "p90", "p99", "p999", "max")]
            assert values == sorted(values) and 0 <= values[0] < 60


def test_relay_is_shown_and_steered(tmp_path):
    port, out_port = free_port(), free_port()
    with Feed(tmp_path, truth=False) as feed:
        relay = Process([program("tessel-relay"), "--mcast", feed.group, "--port", str(feed.port), "--line",
                         f"A=127.0.0.1:{out_port}", "--control-port", str(port)])
        with relay, Console(feed, "--relay", f"127.0.0.1:{port}") as console:
            relay.wait_for_line("joined")
            state = console.wait_for(lambda state: state["relay"]["up"])
            assert state["relay"]["lines"][0].startswith("line A: received=")
            status, answer = console.command("line A drop=5%", to="relay")
            assert status == 200 and answer == {"ok": True, "reply": "ok line A drop=5%"}
            assert console.command("line B drop=5%", to="relay")[1]["ok"] is False
            relay.stop()
            console.wait_for(lambda state: not state["relay"]["up"])


def test_stop_through_the_console_ends_the_feed_alone(tmp_path):
    with Feed(tmp_path, truth=False) as feed, Console(feed) as console:
        console.wait_for(lambda state: state["feed"]["up"])
        assert console.command("stop") == (200, {"ok": True, "reply": "ok stopping"})
        assert feed.wait() == 0
        console.wait_for(lambda state: not state["feed"]["up"])
        assert console.stop(signal.SIGTERM) == 0


def test_unknown_interface_is_status_1_and_said():
    run = subprocess.run([program("tessel-console"), "--iface", "203.0.113.9", "--http", "127.0.0.1:0"],
                         capture_output=True, text=True, timeout=200, check=False)
    assert run.returncode == 1 and run.stdout == ""
    assert run.stderr.startswith("tessel-console: ") and "203.0.113.9" in run.stderr
