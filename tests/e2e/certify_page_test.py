"""docs/certify.md: its commands run in their order and print what the page shows, numbers aside; its tables
name what there is."""

import json
import os
import re
import shutil
import subprocess
import tomllib
from pathlib import Path

import pytest

from feed import program
from time_scale import scaled

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
PAGE = (ROOT / "docs" / "certify.md").read_text()


def section(title):
    return re.search(rf"^## {title}\n(.*?)(?=^## |\Z)", PAGE, re.S | re.M).group(1)


def examples(text):
    """The commands of a text's console blocks, each with the lines that it prints. A command goes on to the
    end of its document."""
    found = []
    for block in re.findall(r"^ *```console\n(.*?)^ *```", text, re.S | re.M):
        document = ""
        for line in re.sub(r"^   (?=\S)", "", block, flags=re.M).splitlines():
            if document:
                found[-1][0] += "\n" + line
                document = "" if line == document else document
            elif line.startswith("$ "):
                found.append([line[2:], []])
                document = (re.search(r"<<'(\w+)'", line) or ["", ""])[1]
            else:
                found[-1][1].append(line)
    return found


def environment():
    folder = str(Path(program("tessel-certify")).parent)
    names = {**os.environ, "PATH": folder + os.pathsep + os.environ["PATH"], "TESSEL_BIN": folder,
             "TESSEL_CASES": str(ROOT / "certify" / "cases")}
    names.pop("TESSEL_SCENARIO", None)
    return names


def plain(line):
    """A printed line without its numbers and the width of its columns."""
    return re.sub(r"\d+(\.\d+)?", "N", " ".join(line.split()))


def run_all(commands, folder):
    """Runs commands in a folder, each after those that only set a variable, and looks for what they print."""
    settings = ""
    for command, shown in commands:
        if re.match(r"\w+=", command):
            settings += command + "\n"
            continue
        done = subprocess.run(["bash", "-c", settings + command], cwd=folder, env=environment(), text=True,
                              capture_output=True, timeout=scaled(240), check=False)
        assert done.returncode in (0, 1), f"{command}\n{done.stdout}{done.stderr}"
        printed = [plain(line) for line in done.stdout.splitlines()]
        for line in shown:
            found = any(each.startswith(plain(line)) for each in printed)
            assert found, f"{line}\n{done.stdout}{done.stderr}"


@pytest.fixture
def folder(tmp_path):
    shutil.copy(ROOT / "examples" / "python" / "handler.py", tmp_path)
    return tmp_path


def test_ten_minutes_lead_to_a_scorecard(folder):
    commands = examples(section("Ten minutes, from nothing to a scorecard"))
    assert len(commands) == 6
    # The last one runs everything, for which a test has no time.
    everything = commands.pop()
    assert "--only" not in everything[0]
    run_all(commands, folder)
    kept = folder / "failures" / "book" / "nbbo_is_the_quote"
    named = re.search(r"`failures/book/nbbo_is_the_quote` keeps(.*?)alone\.", PAGE, re.S).group(1)
    for name in re.findall(r"`(\w+\.\w+)`", named):
        assert (kept / name).stat().st_size > 0, name
    assert not (folder / "failures" / "book" / "levels_add_up").exists()
    assert "nbbo_is_the_quote" in (folder / "scorecard.html").read_text()
    run_all([commands[0], [everything[0] + " --only loss/one_packet", []]], folder)
    result = json.loads((folder / "result.json").read_text())
    assert result["totals"] == {"pass": 1, "fail": 0, "error": 0, "skipped": 0}
    members = re.search(r"for programs: (.*?)\.", section("What the scorecard says"), re.S).group(1)
    names = set(re.findall(r"`(\w+)`", members))
    assert names <= set(result) | set(result["cases"][0]), names
    assert "<testsuite" in (folder / "junit.xml").read_text()
    assert "1 of 1 case" in (folder / "summary.md").read_text()


def test_a_matrix_and_a_case_of_ones_own(folder):
    start = examples(section("Ten minutes, from nothing to a scorecard"))
    settings, bug = start[0], start[2]
    assert bug[0].startswith("sed ")
    run_all([settings, bug] + examples(section("Several handlers")) + examples(section("Your own cases")),
            folder)


def test_the_case_shown_is_the_case_there_is():
    shown = re.search(r"```toml\n(.*?)```", section("A case file"), re.S).group(1)
    name = re.search(r"This is `(\w+/\w+)`", section("A case file")).group(1)
    assert shown == (ROOT / "certify" / "cases" / f"{name}.toml").read_text()


def test_every_key_and_every_kind_of_traffic_has_its_row():
    keys = set(re.findall(r"`(\w+)`", section("A case file")))
    kinds = set(re.findall(r"`(\w+)`", section("Extra traffic")))
    for path in ROOT.glob("certify/cases/*/*.toml"):
        case = tomllib.loads(path.read_text())
        for table in ("run", "expect", "load"):
            assert set(case.get(table, {})) <= keys, path
        for traffic in case.get("traffic", []):
            assert traffic["kind"] in kinds and set(traffic) <= kinds | {"kind"}, path
    source = (ROOT / "tools" / "certify" / "traffic_kinds.cpp").read_text()
    named = re.findall(r'^ *\{"(\w+)",', source, re.M)
    assert len(named) == 21 and set(named) <= kinds


def test_the_table_of_cases_is_fresh():
    done = subprocess.run([ROOT / "scripts" / "case-table", "--check"], capture_output=True, text=True,
                          timeout=scaled(60), check=False)
    assert done.returncode == 0, done.stderr
    listed = subprocess.run([program("tessel-certify"), "--list"], env=environment(), capture_output=True,
                            text=True, timeout=scaled(60), check=True).stdout
    assert {line.split()[0] for line in listed.splitlines()} == set(
        re.findall(r"^\| `(\w+/\w+)` \|", section("Every case"), re.M))
