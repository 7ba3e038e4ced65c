"""The case files of tessel-certify: what they must have, and that each makes happen what it claims.

Cases of the groups decode, book and events are run in simulated time: the same options and seed give the same
messages as the feed. Each has its row in CLAIMS: what has to be there, and how often at least."""

import json
import os
import re
import subprocess
import sys
import tomllib
from pathlib import Path

import pytest

from feed import program
from time_scale import scaled

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
CASES = {f"{path.parent.name}/{path.stem}": path for path in sorted(ROOT.glob("certify/cases/*/*.toml"))}
GROUPS = ["decode", "book", "events", "loss", "join", "robust", "load"]
SIMULATED = [name for name in CASES if name.split("/")[0] in ("decode", "book", "events")]
SEEDS = [1, 2, 7]
RATE_MAX = 1500  # messages a second that a slow handler can take beside fifteen others

sys.path.insert(0, str(ROOT / "tests" / "build"))
from pages_test import anchors_of  # noqa: E402  (its folder has just been named)


def read(name):
    return tomllib.loads(CASES[name].read_text())


class Run:
    """What a case publishes: decoded messages and truth lines."""

    def __init__(self, case, seed, folder):
        options = [f"--seed={seed}"]
        for key, value in {**case.get("feed", {}), **case.get("faults", {})}.items():
            text = ",".join(value) if isinstance(value, list) else str(value)
            options += ["--" + key.replace("_", "-"), text]
        if "timeline" in case["run"]:
            (folder / "timeline").write_text(case["run"]["timeline"])
            options += ["--script", folder / "timeline"]
        environment = {**os.environ, "TESSEL_SCENARIO": ",".join(
            f"{key}={value}" for key, value in case.get("scenario", {"name": "none"}).items())}
        self.seconds = case["run"]["seconds"]
        subprocess.run([program("tessel-capture"), "--quiet", f"--duration={self.seconds}s", *options,
                        "--pcap", folder / "case.pcap", "--truth-out", folder / "truth.jsonl"],
                       env=environment, check=True, capture_output=True, timeout=scaled(60))
        subprocess.run([program("tessel-listen"), "--from-pcap", folder / "case.pcap", "--decode",
                        "--out", folder / "messages.jsonl"], check=True, capture_output=True,
                       timeout=scaled(60))
        self.messages = [json.loads(line) for line in (folder / "messages.jsonl").open()]
        self.truth = [json.loads(line) for line in (folder / "truth.jsonl").open()]

    def count(self, kind="", **fields):
        """Messages of a kind whose fields have these values."""
        return sum(message["kind"].startswith(kind) and
                   all(message.get(field) == value for field, value in fields.items())
                   for message in self.messages)

    def lines(self, condition):
        return sum(bool(condition(line)) for line in self.truth)


def different(run, kind, field):
    return len({message[field] for message in run.messages if message["kind"].startswith(kind)})


def is_crossed(line):
    nbbo = line.get("nbbo")
    return nbbo and nbbo[0] > 0 and nbbo[2] > 0 and nbbo[0] >= nbbo[2]


def nbbo_is_not_the_best_level(line):
    if line.get("status") != "T" or not line.get("bid") or not line.get("ask"):
        return False
    return line["nbbo"][:2] != line["bid"][0] or line["nbbo"][2:] != line["ask"][0]


def ids_of_trades_twice(run):
    """Trade ids that two prints of one instrument have, under different facilities."""
    seen, twice = set(), 0
    for message in run.messages:
        if message["kind"].startswith("trade") and message["market_center"] == "D":
            twice += (message["symbol"], message["id"]) in seen
            seen.add((message["symbol"], message["id"]))
    return twice


def hidden_levels(run):
    """Quotes after which a side has more than ten prices."""
    quotes, found = {}, 0
    for message in run.messages:
        if message["kind"].startswith("quote"):
            sides = quotes.setdefault(message["symbol"], {})
            sides[message["market_center"]] = (message["bid"], message["ask"])
            found += any(len({quote[side] for quote in sides.values() if quote[side] > 0}) > 10
                         for side in (0, 1))
    return found


def corrections_of_corrections(run):
    new_ids, found = set(), 0
    for message in run.messages:
        if message["kind"] in ("correction", "cancel_error"):
            found += (message["symbol"], message["market_center"], message["id"]) in new_ids
        if message["kind"] == "correction":
            new_ids.add((message["symbol"], message["market_center"], message["corrected"]["id"]))
    return found


def status_pairs(run, first, second):
    """Lines at which one instrument has the first status and another one the second."""
    status, found = {}, 0
    for line in run.truth:
        if "status" in line:
            status[line["symbol"]] = line["status"]
            found += first in status.values() and second in status.values()
    return found


def most_in_a_packet(run):
    """The most consecutive messages of one tick: they share a participant time."""
    most = length = 0
    before = None
    for message in run.messages:
        length = length + 1 if message["participant_time_ns"] == before else 1
        before, most = message["participant_time_ns"], max(most, length)
    return most


# What a case claims to contain: how it is counted, and the least number.
CLAIMS = {
    "decode/quote_short": [(lambda r: r.count("quote_short"), 500), (lambda r: -r.count("quote_long"), 0)],
    "decode/quote_long_price": [(lambda r: r.count("quote_long"), 300)],
    "decode/quote_long_symbol": [(lambda r: r.count("quote_long", symbol="GOOGLX"), 100),
                                 (lambda r: r.count("quote_long", symbol="ABCDEFGHIJK"), 100)],
    "decode/quote_form_changes": [(lambda r: r.count("quote_short"), 20),
                                  (lambda r: r.count("quote_long"), 20)],
    "decode/quote_price_large": [(lambda r: sum(m.get("ask", 0) > 2**42 for m in r.messages), 100)],
    "decode/price_signed": [(lambda r: sum(m.get("bid", 0) < 0 for m in r.messages), 30),
                            (lambda r: r.lines(lambda line: line.get("asof", [0])[0] < 0), 4)],
    "decode/quote_one_sided": [(lambda r: r.count("quote", condition="Y"), 15)],
    "decode/quote_adf": [(lambda r: r.count("quote_long", adf_mpid_indicator="2"), 300)],
    "decode/mpid_quote": [(lambda r: r.count("mpid_quote"), 10)],
    "decode/odd_lots_short": [(lambda r: r.count("quote_short", odd_lot_list_indicator="2"), 300),
                              (lambda r: r.count("quote_short", best_odd_lot_indicator="2"), 50)],
    "decode/odd_lots_long": [(lambda r: r.count("quote_long", odd_lot_list_indicator="3"), 300),
                             (lambda r: r.count("quote_long", best_odd_lot_indicator="3"), 50)],
    "decode/odd_lots_adf": [(lambda r: r.count("quote_long", odd_lot_list_indicator="5"), 50),
                            (lambda r: r.count("quote_long", best_odd_lot_indicator="5"), 50),
                            (lambda r: r.count("quote_long", market_center="Q",
                                               best_odd_lot_indicator="5"), 5)],
    "decode/trade_short": [(lambda r: r.count("trade_short"), 60)],
    "decode/trade_long": [(lambda r: r.count("trade_long", symbol="NVR"), 15),
                          (lambda r: r.count("trade_long", symbol="GOOGLX"), 15)],
    "decode/sale_conditions": [(lambda r, c=c: r.count("trade", conditions=c), n) for c, n in [
        ("@   ", 50), ("@  I", 3), ("@F  ", 3), ("@O  ", 3), ("@5  ", 1), ("@6  ", 2), ("@  M", 2)]],
    "decode/odd_lot_trades": [(lambda r: r.count("trade", conditions="@  I"), 10)],
    "decode/trf_prints": [(lambda r, c=c: r.count("trade", market_center="D", sub_market_center=c), 10)
                          for c in " NQB"] + [(ids_of_trades_twice, 20)],
    "decode/cancel_error": [(lambda r: r.count("cancel_error", function="C"), 6),
                            (lambda r: r.count("cancel_error", function="E"), 2)],
    "decode/correction": [(lambda r: r.count("correction", symbol="AAPL"), 3),
                          (lambda r: r.count("correction", symbol="NVR"), 3)],
    "decode/as_of": [(lambda r: r.count("as_of"), 8)],
    "decode/trading_action": [(lambda r, a=a, c=c: r.count("trading_action", action=a, reason=c), 1)
                              for a, c in [("H", "T1"), ("P", "LUDP"), ("Q", "T3"), ("Q", "LUDP"),
                                           ("T", "T3"), ("T", "LUDP")]],
    "decode/price_band": [(lambda r, i=i: r.count("price_band", indicator=i), 1) for i in "ABCDE"],
    "decode/breaker_status": [(lambda r, n=n: r.count("mwcb_status", level=n), 1) for n in "123"],
    "decode/directory": [(lambda r: different(r, "directory_short", "symbol"), 14),
                         (lambda r: different(r, "quote", "symbol"), 14)],
    "decode/market_centers": [(lambda r: different(r, "quote", "market_center"), 17),
                              (lambda r: different(r, "trade", "market_center"), 5)],
    "decode/full_packets": [(most_in_a_packet, 80)],
    "decode/messages_without_a_line": [(lambda r, k=k: r.count(k), 1) for k in [
        "start_of_day", "decline_levels", "directory_short", "directory_long", "indicator",
        "session_open", "wipe_out", "collar", "mpid_quote"]],
    "book/nbbo_unchanged": [(lambda r: r.count("quote", nbbo_indicator="0"), 50)],
    "book/nbbo_gone": [(lambda r: r.count("quote", nbbo_indicator="1"), 3)],
    "book/nbbo_short": [(lambda r: r.count("quote", nbbo_indicator="2"), 200)],
    "book/nbbo_long": [(lambda r: r.count("quote", nbbo_indicator="3"), 150)],
    "book/nbbo_is_the_quote": [(lambda r: r.count("quote_short", nbbo_indicator="4"), 100),
                               (lambda r: r.count("quote_long", nbbo_indicator="4"), 100)],
    "book/nbbo_one_sided": [(lambda r: r.lines(lambda line: "nbbo" in line and
                                               (line["nbbo"][0] == 0) != (line["nbbo"][2] == 0)), 25)],
    "book/nbbo_outside_the_bands": [(lambda r: r.lines(nbbo_is_not_the_best_level), 50)],
    "book/crossed_market": [(lambda r: r.lines(is_crossed), 200)],
    "book/levels_add_up": [(lambda r: r.lines(lambda line: any(
        size > 800 for side in ("bid", "ask") for _, size in line.get(side, []))), 200)],
    "book/ten_levels": [(hidden_levels, 100),
                        (lambda r: r.lines(lambda line: len(line.get("bid", [])) == 10), 100)],
    "book/quote_replaced": [(lambda r: r.count("quote"), 250)],
    "book/same_symbol_in_one_packet": [(most_in_a_packet, 5), (lambda r: r.count("price_band"), 2)],
    "book/halt_empties_quotes": [(lambda r: r.count("quote", condition="L"), 21)],
    "book/quotes_during_a_halt": [(lambda r: r.count("quote", condition="N"), 20),
                                  (lambda r: r.lines(lambda line: line.get("status") in ("H", "P") and
                                                     line.get("bid") and line["nbbo"][0] == 0), 20)],
    "book/wipe_out": [(lambda r: r.count("wipe_out"), 4), (lambda r: r.count("quote", sip_flag="E"), 10)],
    "book/band_in_force": [(lambda r, i=i: r.count("price_band", indicator=i), n)
                           for i, n in [("A", 2), ("D", 3), ("E", 2)]] + [
        (lambda r: r.lines(lambda line: "status" in line and "band" not in line), 20)],
    "book/band_of_a_cent": [(lambda r: r.lines(lambda line: line.get("symbol") == "CENT" and
                                               "status" in line and "band" not in line), 50)],
    "events/halt": [(lambda r, a=a: r.count("trading_action", action=a), 1) for a in "HQT"],
    "events/halt_again": [(lambda r: r.count("trading_action", action="H", symbol="AAPL"), 2),
                          (lambda r: r.count("trading_action", action="P", symbol="AAPL"), 1)],
    "events/two_instruments_halted": [(lambda r: status_pairs(r, "H", "P"), 10)],
    "events/luld_pause": [(lambda r, a=a: r.count("trading_action", action=a, reason="LUDP"), 1)
                          for a in "PQT"] + [(lambda r: r.count("collar"), 1)],
    "events/trading_resumes_by_itself": [(lambda r: r.count("trading_action", action="T"), 1),
                                         (lambda r: r.count("trade", conditions="@5  "), 1)],
    "events/scripted_halt_and_pause": [(lambda r, a=a: r.count("trading_action", action=a), 1)
                                       for a in "HP"] + [
        (lambda r: r.count("trading_action", action="Q"), 2)],
    "events/breaker_level_1": [(lambda r: r.count("trading_action", reason="MWC1"), 3),
                               (lambda r: r.count("trading_action", reason="MWCQ"), 5)],
    "events/breaker_level_3": [(lambda r: r.count("trading_action", reason="MWC3"), 3),
                               (lambda r: r.count("quote", condition="N"), 10)],
    "events/breaker_spares_the_halted": [(lambda r: r.count("mwcb_status", level="2"), 2),
                                         (lambda r: r.count("trading_action", reason="MWC2"), 2),
                                         (lambda r: -r.count("trading_action", reason="MWC2"), -2)],
    "events/open": [(lambda r: r.count("trade", conditions="@O  "), 4),
                    (lambda r: r.count("price_band", indicator="A"), 4)],
    "events/close": [(lambda r: r.count("trade", conditions="@6  "), 3),
                     (lambda r: r.count("trade", conditions="@  M", size=0), 3)],
    "events/cancels_in_a_row": [(lambda r: r.count("cancel_error", function="C"), 8),
                                (lambda r: r.count("cancel_error", function="E"), 2)],
    "events/corrections_in_a_row": [(corrections_of_corrections, 10)],
    "events/as_of_in_the_middle": [(lambda r: r.count("as_of"), 15), (lambda r: r.count("trade"), 100)],
    "events/trades_of_all_kinds": [(lambda r, k=k: r.count(k, market_center="D"), 5)
                                   for k in ("correction", "cancel_error")] + [
        (lambda r, k=k: r.count(k) - r.count(k, market_center="D"), 3)
        for k in ("correction", "cancel_error")],
    "events/bands_follow_the_price": [(lambda r: r.count("price_band", indicator="B"), 6)],
    "events/wipe_out_during_a_halt": [(lambda r: r.count("quote", sip_flag="E"), 4),
                                      (lambda r: r.count("wipe_out"), 3)],
}


def test_the_catalog_has_seven_groups_of_cases():
    assert len(CASES) >= 60
    assert {name.split("/")[0] for name in CASES} == set(GROUPS)
    assert set(CLAIMS) == set(SIMULATED)


@pytest.mark.parametrize("name", CASES)
def test_a_case_says_what_it_proves_and_where_that_is_explained(name):
    case = read(name)
    assert 5 < len(case["title"]) <= 70
    for text in ("proves", "why"):
        assert 20 < len(case[text]) <= 130 and case[text].endswith("."), case[text]
    page, _, anchor = case["page"].partition("#")
    assert (ROOT / page).exists() and anchor in anchors_of(ROOT / page), case["page"]
    assert case["expect"]["members"]
    assert set(case["expect"]["members"]) <= set(case["expect"].get("compare", case["expect"]["members"]))


def test_no_two_cases_have_the_same_title():
    titles = [read(name)["title"] for name in CASES]
    assert sorted(titles) == sorted(set(titles))


@pytest.mark.parametrize("name", SIMULATED)
def test_what_a_case_claims_happens(name, tmp_path):
    case = read(name)
    for seed in SEEDS:
        run = Run(case, seed, tmp_path)
        assert len(run.messages) <= RATE_MAX * run.seconds
        for member in case["expect"]["members"]:
            assert run.lines(lambda line, member=member: member in line), (seed, member)
        for number, (claim, least) in enumerate(CLAIMS[name]):
            assert claim(run) >= least, f"seed {seed}, claim {number}: {claim(run)}, not {least}"
