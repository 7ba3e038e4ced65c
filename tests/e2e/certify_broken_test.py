"""Each broken handler is failed by the cases that claim to find its bug."""

import ast
import json
import os
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

import pytest
from broken_handlers import (ARGUMENTS, GROUPS, ROOT, broken_text, failed_cases, read_bugs, read_page,
                             write_broken)
from feed import program
from time_scale import scaled

BUGS = read_bugs()
SIDE_BY_SIDE = 6  # handlers; most of a case is waiting


def test_every_bug_fits_the_handler_and_is_a_program():
    assert len(BUGS) >= 40 and len({bug.name for bug in BUGS}) == len(BUGS)
    for bug in BUGS:
        ast.parse(broken_text(bug))


def test_page_has_a_row_a_bug_and_its_claims_are_met():
    rows = read_page()
    assert list(rows) == [bug.name for bug in BUGS]
    for bug in BUGS:
        assert bug.cases and set(bug.cases) <= set(rows[bug.name]), bug.name


def test_page_names_cases_that_exist():
    listed = {f"{path.parent.name}/{path.stem}" for path in (ROOT / "certify" / "cases").glob("*/*.toml")}
    assert {name for names in read_page().values() for name in names} <= listed


def verdicts(bug, folder):
    """Runs the cases that claim to find the bug; returns those that failed."""
    report = folder / f"{bug.name}.json"
    words = [program("tessel-certify"), "--handler",
             f"{sys.executable} {write_broken(bug, folder)} {ARGUMENTS}", "--late-arg=--late", "--only",
             ",".join(bug.cases), "--json", report]
    environment = {**os.environ, "TESSEL_BIN": os.path.dirname(program("tessel-certify"))}
    done = subprocess.run(words, capture_output=True, text=True, timeout=scaled(300), check=False,
                          env=environment)
    assert done.returncode == 1, f"{bug.name}: status {done.returncode}\n{done.stdout}\n{done.stderr}"
    return failed_cases(json.loads(report.read_text()))


@pytest.mark.parametrize("group", GROUPS)
def test_bugs_of_a_group_are_failed_by_the_cases_that_claim_them(group, tmp_path):
    bugs = [bug for bug in BUGS if bug.group == group]
    with ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
        found = list(pool.map(lambda bug: verdicts(bug, tmp_path), bugs))
    claimed = {bug.name: set(bug.cases) for bug in bugs}
    assert {bug.name: set(names) for bug, names in zip(bugs, found)} == claimed
