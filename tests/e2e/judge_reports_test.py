"""The judge's reports for programs: JSON, JUnit XML, Markdown."""

import json
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest

from feed import program

SYMBOLS = ["AAPL", "BRK.B", "C", "D"]


def line(seq, **members):
    return json.dumps({"seq": seq, "symbol": SYMBOLS[seq % 4], "status": "T", **members}) + "\n"


TRUTH = "".join(line(seq, nbbo=[190.01, 300, 190.03, seq]) for seq in range(1, 5_001))


class Bench:
    def __init__(self, folder):
        self.folder = folder
        self.truth = folder / "truth.jsonl"
        self.output = folder / "output.jsonl"
        self.truth.write_text(TRUTH)

    def judge(self, output, *args):
        self.output.write_text(output)
        return subprocess.run([program("tessel-judge"), self.truth, self.output, *map(str, args)],
                              capture_output=True, text=True, timeout=120, check=False)

    def json(self, output, *args):
        done = self.judge(output, "--json", "-", *args)
        assert done.returncode in (0, 1), done.stderr
        return json.loads(done.stdout)


@pytest.fixture
def bench(tmp_path):
    return Bench(tmp_path)


def test_json_of_an_agreement(bench):
    report = bench.json(TRUTH, "--about", "seed 7", "--about", "options: a=b <c>")
    assert report["verdict"] == "AGREES"
    assert (report["truth_lines"], report["output_lines"], report["matched"]) == (5000, 5000, 5000)
    assert (report["mismatched"], report["missing"], report["unexpected"]) == (0, 0, 0)
    assert report["compared_members"] == 15_000
    assert report["members"] == {name: {"compared": 5000, "mismatched": 0}
                                 for name in ("symbol", "nbbo", "status")}
    assert report["differences"] == [] and report["about"] == ["seed 7", "options: a=b <c>"]
    runs = [(run["run"], run["first"], run["last"], run["matched"]) for run in report["runs"]]
    assert runs == [(1, 1, 5000, 5000)]


def test_json_has_one_difference_a_member_and_symbol(bench):
    output = "".join(line(seq, status="H" if seq % 4 < 2 and seq > 100 else "T",
                          nbbo=[190.01, 301 if seq == 400 else 300, 190.03, seq])
                     for seq in range(1, 5_001) if seq != 3_000)
    report = bench.json(output)
    assert report["verdict"] == "DIFFERS"
    assert (report["mismatched"], report["missing"]) == (2450 - 1, 1)
    shown = [tuple(d[name] for name in ("seq", "symbol", "member", "truth", "output", "in_gap"))
             for d in report["differences"]]
    assert shown == [(101, "BRK.B", "status", "T", "H", False), (104, "AAPL", "status", "T", "H", False),
                     (400, "AAPL", "nbbo", [190.01, 300, 190.03, 400], [190.01, 301, 190.03, 400], False)]
    assert report["gaps"] == [{"run": 1, "first": 3000, "last": 3000, "lines": 1}]
    later = "".join(line(seq, status="H" if seq == 4_000 else "T") for seq in range(1, 5_001) if seq != 3_000)
    assert [d["in_gap"] for d in bench.json(later)["differences"]] == [True]


def test_nothing_compared_is_a_verdict(bench):
    output = "".join(f'{{"seq":{seq},"statsu":"T","time":{seq}}}\n' for seq in range(1, 5_001))
    done = bench.judge(output)
    assert done.returncode == 1
    head = done.stdout.split("\n\n")[0]
    assert head.startswith("NOTHING COMPARED: ")
    assert "member 'statsu', which no truth line has; did you mean 'status'?" in head and "'time'" in head
    report = bench.json(output)
    assert (report["verdict"], report["compared_members"]) == ("NOTHING COMPARED", 0)
    assert report["unknown_members"] == ["statsu", "time"]
    assert bench.json("".join(f'{{"seq":{seq}}}\n' for seq in range(1, 5_001)))["verdict"] == "AGREES"


def test_json_to_a_file_leaves_the_text(bench):
    done = bench.judge(TRUTH, "--json", bench.folder / "r.json")
    assert done.stdout.startswith("AGREES: ")
    assert json.loads((bench.folder / "r.json").read_text())["verdict"] == "AGREES"


EVIL = '<b>&"\'\x01]]> |`# café \udcff'.encode("utf-8", "surrogateescape")


def test_junit_is_well_formed_whatever_is_in_the_lines(bench):
    bench.truth.write_text(line(1) + line(2))
    output = (line(1, status='<b>&"]]>\x01|') + line(2, status="H", symbol="x") + line(7)
              + '{"seq":2,"<\\u0001>":1,"\\ufffe":2}\n')
    done = bench.judge(output, "--junit", "-", "--about", EVIL.decode("utf-8", "surrogateescape"))
    assert done.returncode == 1, done.stderr
    suite = ElementTree.fromstring(done.stdout.encode("utf-8", "surrogateescape")).find("testsuite")
    cases = {case.get("name"): case.find("failure") for case in suite.findall("testcase")}
    assert set(cases) == {"missing lines", "unexpected lines", "members compared", "member symbol",
                          "member status"}
    assert cases["missing lines"] is None and cases["members compared"] is None
    assert cases["member status"].get("message") == "2 of 2 values differ"
    assert "truth \"T\", output \"<b>&" in cases["member status"].text
    assert (suite.get("tests"), suite.get("failures")) == ("5", "3")
    assert suite.find("properties/property").get("value").startswith("<b>&\"'")


def test_markdown_names_verdict_counts_and_examples(bench):
    bench.truth.write_text(line(1) + line(2))
    output = line(1, status="a|b<i>*") + '{"seq":2,"statsu":"T"}\n'
    done = bench.judge(output, "--summary-md", "-", "--about", "seed *7*")
    assert done.returncode == 1
    text = done.stdout
    assert text.startswith("## tessel-judge: DIFFERS\n\nseed \\*7\\*\n")
    assert "| 2 | 2 | 1 | 1 | 0 | 0 |" in text
    assert '| 1 | &quot;BRK.B&quot; | status | &quot;T&quot; | &quot;a\\|b&lt;i&gt;\\*&quot; | 1 |' in text
    assert "- not compared: member statsu, which no truth line has; did you mean &#39;status&#39;?" in text


def test_about_is_at_the_head_of_every_report(bench):
    page = bench.folder / "page.html"
    done = bench.judge(TRUTH, "--about", "seed 7", "--about", "<x>", "--report", page)
    assert done.stdout.startswith("about: seed 7\nabout: <x>\nAGREES: ")
    assert page.read_text().index("<p class=\"about\">seed 7</p>") < page.read_text().index("<h1>")
    assert "<p class=\"about\">&lt;x&gt;</p>" in page.read_text()


@pytest.mark.parametrize("option", ["--report", "--json", "--junit", "--summary-md"])
def test_report_that_cannot_be_written_is_status_2(bench, option):
    done = bench.judge(TRUTH, option, "/dev/full")
    assert (done.returncode, done.stderr) == (2, "tessel-judge: /dev/full: No space left on device\n")
    missing = bench.folder / "no" / "file"
    done = bench.judge(TRUTH, option, missing)
    assert (done.returncode, done.stderr) == (2, f"tessel-judge: {missing}: No such file or directory\n")
