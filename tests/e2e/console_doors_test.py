"""Every door of tessel-console, with each status that it can have."""

import json
import subprocess

import pytest
from console import Console
from feed import Feed, program, wait_until


@pytest.fixture(scope="module", name="feed")
def _feed(tmp_path_factory):
    with Feed(tmp_path_factory.mktemp("feed"), "--seed", "11") as feed:
        yield feed


@pytest.fixture(scope="module", name="console")
def _console(feed):
    with Console(feed) as console:
        console.wait_for(lambda state: state["feed"]["up"] and state["total"] == 3)
        yield console


def test_state_has_the_members_that_scripts_rely_on(console, feed):
    state = console.wait_for(lambda state: state["control"]["up"])
    assert set(state) >= {"feed", "counters", "faults", "receiver", "total", "instruments"}
    assert state["feed"]["up"] is True and state["feed"]["session"] == feed.session
    assert 0 < state["feed"]["next_seq"] <= feed.next_seq()
    stats = feed.stats()
    assert set(state["counters"]) == set(stats) - {"next_seq", "sent", "dropped", "duplicated", "reordered"}
    assert len(state["counters"]) == 24
    assert set(state["faults"]) == {"sent", "dropped", "duplicated", "reordered"}
    assert set(state["receiver"]) >= {"messages", "packets", "gaps", "recovered", "lost"}
    assert [row["symbol"] for row in state["instruments"]] == ["AAPL", "MSFT", "TSLA"]
    for row in state["instruments"]:
        assert set(row) == {"symbol", "status", "bid", "bid_size", "ask", "ask_size", "last", "volume",
                            "band"}


def test_state_is_searched_sorted_and_cut(console):
    assert [row["symbol"] for row in console.state("?search=s&limit=1")["instruments"]] == ["MSFT"]
    assert console.state("?search=s&limit=1")["total"] == 2
    rows = console.state("?sort=-symbol&offset=1")["instruments"]
    assert [row["symbol"] for row in rows] == ["MSFT", "AAPL"]
    bids = [row["bid"] for row in console.state("?sort=bid")["instruments"]]
    assert bids == sorted(bids)
    assert console.get("/api/state?sort=color")[0] == 400
    assert console.get("/api/state?limit=-1")[0] == 400


def test_counters_change_with_the_feed(console, feed):
    before = feed.stats()["quotes"]
    console.wait_for(lambda state: state["counters"]["quotes"] > before
                     and state["receiver"]["messages"] > 0 and state["rates"]["messages"] > 0)
    explanations = json.loads(console.get("/api/counters")[1])
    assert list(explanations) == list(console.state()["counters"])
    assert all(explanations.values())


def test_instrument_has_the_quotes_that_the_truth_log_has(console, feed):
    wait_until(lambda: console.instrument("AAPL")["trades"], what="a trade")
    document = console.instrument("AAPL")
    assert {quote["center"] for quote in document["quotes"]} == set("QNPZKVD")
    truth = {line["seq"]: line for line in feed.truth() if "trade" in line and line["symbol"] == "AAPL"}
    for trade in document["trades"]:
        line = truth[trade["seq"]]
        assert [trade["price"], trade["size"], trade["center"], trade["conditions"]] == line["trade"]
        assert trade["kind"] == "trade" and trade["state"] == "live"
    assert console.get("/api/instruments/NONE")[0] == 404
    assert console.get("/api/instruments/%41APL")[0] == 200


def test_halt_reaches_the_market_the_stream_and_the_history(console, feed):
    with console.stream("?symbol=MSFT") as stream:
        stream.wait_for("state")
        assert console.command("halt MSFT") == (200, {"ok": True, "reply": "ok halt MSFT"})
        event = stream.wait_for("market", lambda data: data["kind"] == "halt")
        assert event["symbol"] == "MSFT"
        detail = stream.wait_for("instrument", lambda data: data["status"] == "H")
        halt = detail["halts"][-1]
        assert (halt["seq"], halt["action"], halt["reason"]) == (event["seq"], "H", "T1")
        lines = wait_until(lambda: [line for line in feed.truth() if line["seq"] == event["seq"]],
                           what="the truth log's line")
        assert lines[0]["ah"] == "H" and lines[0]["symbol"] == "MSFT"
        console.command("resume MSFT")
        stream.wait_for("market", lambda data: data["kind"] == "resume" and data["symbol"] == "MSFT")
    assert "halt MSFT" in [mark["text"] for mark in console.state()["marks"]]


def test_every_kind_of_market_event(console):
    with console.stream() as stream:
        stream.wait_for("state")
        for command, kind, symbol in (("band TSLA", "band", "TSLA"), ("luld_pause TSLA", "pause", "TSLA"),
                                      ("wipeout Q", "wipeout", ""), ("cancel 40", "cancel", None),
                                      ("correct 40", "correction", None), ("mwcb 1", "mwcb", "")):
            assert console.command(command)[1]["ok"] is True
            event = stream.wait_for("market", lambda data, kind=kind: data["kind"] == kind)
            assert event["seq"] > 0 and symbol in (None, event["symbol"])


def test_commands_that_are_none(console, feed):
    assert console.command("halt NONE") == (200, {"ok": False, "reply": "err unknown symbol"})
    assert console.command("dance")[1]["ok"] is False
    before = feed.stats()["halts"]
    for body in ("", "x", "[]", "{}", '{"command": 1}', '{"command": ""}', '{"command": "halt\\nAAPL"}',
                 '{"command": "halt AAPL\\u0000"}', '{"command": "halt AAPL", "twice": true}'):
        assert console.request("POST", "/api/command", body)[0] == 400, body
    assert console.request("POST", "/api/command", '{"command": "halt AAPL"}' + " " * 5000)[0] == 413
    try:
        assert console.request("POST", "/api/command", b"x" * 3_000_000)[0] == 413
    except (BrokenPipeError, ConnectionResetError):
        pass  # refused after its head; the reply may be lost while the body is still being sent
    assert console.command("stats", to="relay")[0] == 502
    assert feed.stats()["halts"] == before


def test_token_host_and_origin(console):
    for path in ("/", "/api/state", "/metrics", "/api/events", "/nothing"):
        assert console.get(path, token=False)[0] == 401
        assert console.get(f"{path}?token={console.token[:-1]}A", token=False)[0] == 401
    assert console.get("/healthz", token=False) == (200, "ok\n")
    status, headers, text = console.request("GET", f"/?token={console.token}", token=False)
    assert status == 200 and "<html" in text
    cookie = headers["Set-Cookie"]
    assert "HttpOnly" in cookie and "SameSite=Strict" in cookie
    assert console.get("/api/state", token=False, headers={"Cookie": cookie.split(";")[0]})[0] == 200
    own = f"127.0.0.1:{console.port}"
    for host, status in ((own, 200), (f"localhost:{console.port}", 200), ("evil.example", 403),
                         ("127.0.0.1", 403), (f"evil.example:{console.port}", 403)):
        assert console.get("/api/state", headers={"Host": host})[0] == status, host
    for origin, status in ((f"http://{own}", 200), (f"http://localhost:{console.port}", 200), ("null", 403),
                           (f"https://{own}", 403), ("http://evil.example", 403)):
        status_now, headers, _ = console.request("GET", "/api/state", headers={"Origin": origin})
        assert status_now == status, origin
        assert not [name for name in headers if name.lower().startswith("access-control")]


def test_headers_of_every_reply(console):
    for method, path in (("GET", "/"), ("GET", "/nothing"), ("DELETE", "/"), ("GET", "/api/state?limit=x")):
        _, headers, _ = console.request(method, path)
        assert headers["Content-Security-Policy"].startswith("default-src 'self'")
        assert headers["X-Content-Type-Options"] == "nosniff"
        assert headers["Cache-Control"] == "no-store"


def test_other_paths_and_methods(console):
    assert console.get("/nothing")[0] == 404
    assert console.get("/../../etc/passwd")[0] == 404
    for method, path in (("POST", "/api/state"), ("GET", "/api/command"), ("PUT", "/"),
                         ("OPTIONS", "/api/state"), ("DELETE", "/metrics"), ("POST", "/healthz")):
        status, headers, _ = console.request(method, path)
        assert status == 405 and headers["Allow"], (method, path)


def test_read_only_refuses_every_command(feed):
    with Console(feed, "--read-only", "--metrics-open") as console:
        assert console.command("halt AAPL")[0] == 403
        assert console.state()["control"]["read_only"] is True
        assert console.get("/metrics", token=False)[0] == 200
        assert console.get("/api/state", token=False)[0] == 401


def test_each_start_has_another_token(feed, console):
    with Console(feed) as other:
        assert other.token != console.token
        assert console.get(f"/api/state?token={other.token}", token=False)[0] == 401


def test_port_taken_is_status_1_and_said(feed, console):
    run = subprocess.run([program("tessel-console"), "--feed", f"{feed.group}:{feed.port}", "--http",
                          f"127.0.0.1:{console.port}"], capture_output=True, text=True, timeout=200,
                         check=False)
    assert run.returncode == 1
    assert run.stdout == ""
    assert run.stderr == (f"tessel-console: --http: 127.0.0.1:{console.port}: Address already in use; "
                          "is another console there?\n")


def test_address_of_other_hosts_needs_listen_anyway(feed):
    run = subprocess.run([program("tessel-console"), "--http", "0.0.0.0:0"], capture_output=True, text=True,
                         timeout=200, check=False)
    assert run.returncode == 2 and "--listen-anyway" in run.stderr
    with Console(feed, "--listen-anyway", http="0.0.0.0:0") as console:
        assert console.get("/healthz", token=False)[0] == 200
        assert "not encrypted" in " ".join(console.stderr)
