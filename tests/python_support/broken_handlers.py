"""Broken handlers: the example handler with one bug each, to prove that the catalog of cases finds them.

tests/broken/*.toml has the bugs. Each is a few replacements in the text of examples/python/handler.py, every
one of which must fit in exactly one place. `cases` are those that claim to prove the point, so each of them
must fail; docs/broken-handlers.md has the whole table, made by scripts/broken-handlers.
"""

from __future__ import annotations

import re
import tomllib
from dataclasses import dataclass
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parents[2]
HANDLER = ROOT / "examples" / "python" / "handler.py"
GROUPS = ("decode", "book", "events", "loss", "join", "robust")
ARGUMENTS = ("--group {group} --port {port} --iface {iface} --session {session} --retrans {retrans}"
             " --snapshot {snapshot} --out {out} {late}")


@dataclass(frozen=True)
class Bug:
    group: str
    name: str
    says: str  # what the handler does wrong
    cases: tuple[str, ...]
    changes: tuple[tuple[str, str], ...]


def read_bugs() -> list[Bug]:
    bugs = []
    for group in GROUPS:
        with open(ROOT / "tests" / "broken" / f"{group}.toml", "rb") as file:
            for each in tomllib.load(file)["bug"]:
                changes = tuple((change["old"], change["new"]) for change in each["change"])
                bugs.append(Bug(group, each["name"], each["says"], tuple(each["cases"]), changes))
    return bugs


def broken_text(bug: Bug) -> str:
    """The handler's text with the bug. Raises ValueError when a change does not fit in exactly one place."""
    text = HANDLER.read_text(encoding="utf-8")
    for old, new in bug.changes:
        if text.count(old) != 1:
            raise ValueError(f"{bug.name}: {text.count(old)} places for {old!r}, must be one")
        text = text.replace(old, new)
    return text


def write_broken(bug: Bug, folder: Path) -> Path:
    path = folder / f"{bug.name}.py"
    path.write_text(broken_text(bug), encoding="utf-8")
    return path


def failed_cases(report: dict[str, Any]) -> list[str]:
    """Names of the cases that the handler of a report of tessel-certify does not pass."""
    return [case["name"] for case in report["cases"] if case["verdict"] in ("fail", "error")]


PAGE_HEAD = """# Broken handlers

Does the catalog of [tessel-certify](certify.md) find what is wrong? Each row is the
[example handler](python-handler.md) with one bug, and every case that it fails, of {cases} without the
load cases. The cases that claim to prove the point are set in bold; the others fail because the bug shows
there as well. The handler without a bug passes all of them. `tests/broken/` has the bugs as replacements
in the handler's text, and `scripts/broken-handlers` makes this page.

"""


def page_text(bugs: list[Bug], results: dict[str, list[str]], cases: int) -> str:
    """docs/broken-handlers.md: a table a group, a row a bug."""
    text = PAGE_HEAD.format(cases=cases)
    for group in GROUPS:
        text += f"## {group}\n\n| bug | the handler | failed by |\n|---|---|---|\n"
        for bug in bugs:
            if bug.group == group:
                failed = ", ".join(f"**`{name}`**" if name in bug.cases else f"`{name}`"
                                   for name in results[bug.name])
                text += f"| `{bug.name}` | {bug.says} | {failed} |\n"
        text += "\n"
    return text.rstrip("\n") + "\n"


def read_page() -> dict[str, list[str]]:
    """The page's rows: bug and the cases that it fails."""
    rows = {}
    for line in (ROOT / "docs" / "broken-handlers.md").read_text(encoding="utf-8").splitlines():
        cells = [cell.strip() for cell in line.split("|")]
        if len(cells) == 5 and cells[1].startswith("`"):
            rows[cells[1].strip("`")] = re.findall(r"`([^`]+)`", cells[3])
    return rows
