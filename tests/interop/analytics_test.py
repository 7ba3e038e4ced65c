"""The blocks of docs/analytics.md, run by DuckDB in their order, give the tables of the page; what they say
is computed again from the files, and the judge in SQL counts what tessel-judge counts."""

import collections
import json
import os
import random
import re
import subprocess
from decimal import Decimal
from pathlib import Path

import pytest

from feed import program
from npm import NPM, install_packages
from time_scale import scaled

PAGE = Path(__file__).resolve().parents[2] / "docs" / "analytics.md"
JUDGED = ("truth_lines", "output_lines", "matched", "mismatched", "missing", "unexpected")
SECOND = 1_000_000_000


def blocks(language, text=None):
    return re.findall(rf"^```{language}\n(.*?)^```$", text or PAGE.read_text(), re.S | re.M)


def ask(folder, *texts):
    """What DuckDB gives for each text: the columns and rows of its last statement."""
    done = subprocess.run(["node", NPM / "duckdb.js"], input=json.dumps(texts), cwd=folder, text=True,
                          capture_output=True, timeout=scaled(240), check=False)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def judge(truth, output, *options):
    """tessel-judge's own opinion."""
    done = subprocess.run([program("tessel-judge"), truth, output, "--json", *options], capture_output=True,
                          text=True, timeout=scaled(120), check=False)
    assert done.returncode in (0, 1), done.stderr
    return json.loads(done.stdout)


def run_bash(folder, commands):
    path = f"{Path(program('tessel-capture')).parent}:{os.environ['PATH']}"
    done = subprocess.run(["bash", "-ec", commands], cwd=folder, env={**os.environ, "PATH": path}, text=True,
                          capture_output=True, timeout=scaled(240), check=False)
    assert done.returncode == 0, done.stderr


def table(result):
    """A result as the page shows it."""
    rows = [["" if cell is None else str(cell) for cell in row] for row in result["rows"]]
    head = f"| {' | '.join(result['columns'])} |\n{'|---' * len(result['columns'])}|\n"
    return head + "".join(f"| {' | '.join(row)} |\n" for row in rows)


class Day:
    """The page's day: its files, and what DuckDB answered, by the headings of the page."""

    def __init__(self, folder):
        self.folder = folder
        script, = blocks("python")
        (folder / "handler.py").write_text(script)
        commands, = blocks("bash")
        run_bash(folder, commands + "zstd -dqf truth.jsonl.zst")
        sections = re.findall(r"^#+ ([^\n]*)\n(.*?)(?=^#+ |\Z)", PAGE.read_text(), re.S | re.M)
        questions = [(heading, sql) for heading, body in sections for sql in blocks("sql", body)]
        answers = ask(folder, *(sql for _, sql in questions))
        self.answers = {heading: answer for (heading, _), answer in zip(questions, answers)}
        assert len(self.answers) == len(questions) == 12
        with open(folder / "messages.jsonl", encoding="utf-8") as lines:
            self.messages = [json.loads(line) for line in lines]

    def rows(self, number):
        """The answer to query `number`, a list of dicts."""
        answer, = (answer for heading, answer in self.answers.items() if heading.startswith(f"{number}. "))
        return [dict(zip(answer["columns"], row)) for row in answer["rows"]]

    def trades(self, symbol=None):
        return [each for each in self.messages if each["kind"] in ("trade_short", "trade_long") and
                symbol in (None, each["symbol"])]


@pytest.fixture(name="day", scope="module")
def day_fixture(tmp_path_factory):
    install_packages()
    return Day(tmp_path_factory.mktemp("day"))


def test_the_page_shows_what_its_queries_give(day):
    """TESSEL_UPDATE_GOLDEN=1 writes today's tables into the page."""
    text = PAGE.read_text()
    shown = re.findall(r"^```sql\n.*?^```\n\n((?:\|[^\n]*\n)+)", text, re.S | re.M)
    given = [table(answer) for answer in day.answers.values()]
    if os.environ.get("TESSEL_UPDATE_GOLDEN"):
        answers = iter(given)
        PAGE.write_text(re.sub(r"(^```sql\n.*?^```\n\n)(?:\|[^\n]*\n)+",
                               lambda found: found[1] + next(answers), text, flags=re.S | re.M))
        return
    assert shown == given


def test_rates_and_spreads_are_those_of_the_files(day):
    rates = collections.Counter(each["sip_time_ns"] // SECOND for each in day.messages)
    assert [int(row["messages"]) for row in day.rows(1)] == sorted(rates.values(), reverse=True)[:3]
    stamps = {each["seq"]: each["sip_time_ns"] for each in day.messages}
    steps = collections.defaultdict(list)
    for line in (day.folder / "truth.jsonl").read_text().splitlines():
        row = json.loads(line, parse_float=Decimal)
        if "nbbo" in row:
            steps[row["symbol"]].append((stamps[row["seq"]], row["status"], row["nbbo"][0], row["nbbo"][2]))
    for row in day.rows(2):
        spans = [(end[0] - begin[0], begin[2], begin[3])
                 for begin, end in zip(steps[row["symbol"]], steps[row["symbol"]][1:])
                 if begin[1] == "T" and begin[2] > 0 and begin[3] > 0]
        total, open_ns = sum(ns for ns, _, _ in spans), sum(ns for ns, bid, ask in spans if ask > bid)
        spread = sum((ask - bid) * ns for ns, bid, ask in spans if ask > bid) / open_ns
        crossed = 100 * sum(ns for ns, bid, ask in spans if ask < bid) / total
        assert abs(float(row["spread"]) - float(spread)) < 1e-4, row
        assert abs(float(row["crossed_percent"]) - crossed) < 0.1, row
        assert abs(float(row["seconds"]) - total / SECOND) < 0.1, row
    assert len(day.rows(2)) == len(steps) == 4


def test_bars_halts_lots_volumes_and_centers_are_those_of_the_files(day):
    bars = collections.defaultdict(list)
    for trade in day.trades("AAPL"):
        bars[trade["sip_time_ns"] // (60 * SECOND)].append(trade)
    for row, (_, trades) in zip(day.rows(3), sorted(bars.items())):
        prices = [Decimal(each["price"]) / 10**6 for each in trades if "I" not in each["conditions"]]
        shares = [each["size"] // 10**6 for each in trades]
        turnover = sum(Decimal(each["price"]) * (each["size"] // 10**6) for each in trades) / 10**6
        assert [Decimal(row[name]) for name in ("open", "high", "low", "close")] == \
            [prices[0], max(prices), min(prices), prices[-1]]
        assert (int(row["trades"]), int(row["volume"])) == (len(trades), sum(shares))
        assert abs(Decimal(row["vwap"]) - turnover / sum(shares)) <= Decimal("0.0001")
    assert [(row["until_quotes"], row["until_trades"]) for row in day.rows(4)] == [
        ("30.000", "32.000"), ("45.000", "47.000")]  # of the scenario; trading resumes 2 s after quotation
    for row in day.rows(5):
        shares = [each["size"] // 10**6 for each in day.trades(row["symbol"])]
        assert (int(row["trades"]), int(row["odd_lots"])) == (len(shares), sum(each < 100 for each in shares))
    assert all(row["net"] == row["feed"] for row in day.rows(6)) and len(day.rows(6)) == 4
    centers = collections.Counter()
    for trade in day.trades():
        centers[trade["market_center"]] += trade["size"] // 10**6
    assert [(row["market_center"], int(row["shares"])) for row in day.rows(9)] == centers.most_common(3)


def test_latency_gaps_and_verdict_are_the_judges(day):
    folder = day.folder
    opinion = judge(folder / "truth.jsonl.zst", folder / "handler.jsonl", "--latency", "taken", "--times",
                    folder / "times.jsonl")
    row, = day.rows(10)
    assert [int(row[name]) for name in JUDGED] == [opinion[name] for name in JUDGED]
    assert all(opinion[name] > 0 for name in ("mismatched", "missing", "unexpected"))
    gaps = day.rows(8)
    assert int(gaps[0]["lines"]) == opinion["longest_gap"] == max(int(gap["lines"]) for gap in gaps)
    longest = max(float(row["max"]) for row in day.rows(7))
    assert abs(longest - opinion["latency"]["taken"]["max"] / 1000) <= longest / 500  # three digits
    # The judge counts a line that was written twice once.
    assert sum(int(row["lines"]) for row in day.rows(7)) == opinion["output_lines"]


def damaged(lines, seed):
    """A handler's file with everything that the judge has a rule for, at random places."""
    chooser = random.Random(seed)
    truth = [json.loads(line) for line in lines]
    output = []
    for row in truth:
        fate = chooser.random()
        if fate < 0.03:
            continue
        row = dict(row)
        member = chooser.choice(list(row))
        if fate < 0.06 and member != "seq":
            row[member] = chooser.choice([None, "wrong", 7, [], [[1.5, 2]], [190.01, "100"]])
        elif fate < 0.09 and member != "seq":
            del row[member]
        elif fate < 0.11:
            row["band"] = None
        elif fate < 0.13:
            row["my_stamp"] = {"ns": 1767623400000000000}
        elif fate < 0.15 and "nbbo" in row:
            row["nbbo"][0] += chooser.choice([1e-9, 1e-6, 0.01])
        output.append(json.dumps(row))
        if fate > 0.98:
            output.append(json.dumps(row))
        elif fate > 0.96:
            output.append(json.dumps({"seq": 10_000_000 + row["seq"], "symbol": "NONE"}))
        if fate > 0.9:
            at = max(0, len(output) - chooser.randrange(1, 200))
            output[at], output[-1] = output[-1], output[at]
    return "\n".join(output).replace("190.0,", "1.9e2,") + "\n"


@pytest.mark.parametrize("seed", [1, 2])
def test_damage_at_random_gets_the_same_verdict_twice(day, tmp_path, seed):
    with open(day.folder / "truth.jsonl", encoding="utf-8") as file:
        lines = [next(file).rstrip("\n") for _ in range(3000)]
    mark = json.dumps({"mark": "here", "seq": json.loads(lines[49])["seq"]})
    (tmp_path / "truth.jsonl").write_text("\n".join([*lines[:50], mark, *lines[50:]]) + "\n")
    (tmp_path / "handler.jsonl").write_text(damaged(lines, seed))
    answer, = ask(tmp_path, blocks("sql")[-1].replace("truth.jsonl.zst", "truth.jsonl"))
    opinion = judge(tmp_path / "truth.jsonl", tmp_path / "handler.jsonl")
    counts = dict(zip(answer["columns"], map(int, answer["rows"][0])))
    assert counts == {name: opinion[name] for name in JUDGED}
    assert all(opinion[name] > 50 for name in ("mismatched", "missing", "unexpected"))
