"""The judge as a function."""

from __future__ import annotations

import json
import os
import subprocess
import tempfile
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Sequence, Union

from tessel.process import program


@dataclass(frozen=True)
class Judgment:
    """What tessel-judge found. `text` is its report; `differences` has one entry per member and symbol."""

    verdict: str
    text: str
    truth_lines: int
    output_lines: int
    matched: int
    mismatched: int
    missing: int
    unexpected: int
    differences: list[dict[str, Any]] = field(default_factory=list)

    @property
    def agrees(self) -> bool:
        return self.verdict == "AGREES"


def judge(truth: Union[str, "os.PathLike[str]"], output: Union[str, "os.PathLike[str]"], late: bool = False,
          early: bool = False, about: Sequence[str] = ()) -> Judgment:
    """Compares a handler's output with the truth log.

    late    judge from the output's lowest number on, early: up to its highest
    about   lines for the head of the report: the seed, the options

    Raises ValueError when a file cannot be read or judged.
    """
    with tempfile.TemporaryDirectory(prefix="tessel-") as folder:
        report = Path(folder) / "judgment.json"
        words = [program("tessel-judge"), os.fspath(truth), os.fspath(output), "--json", str(report)]
        words += ["--late"] if late else []
        words += ["--early"] if early else []
        for line in about:
            words += ["--about", line]
        done = subprocess.run(words, capture_output=True, text=True, errors="replace", check=False)
        if done.returncode not in (0, 1):
            raise ValueError(done.stderr.strip() or f"tessel-judge ended with status {done.returncode}")
        found = json.loads(report.read_text())
    counts = ("truth_lines", "output_lines", "matched", "mismatched", "missing", "unexpected")
    numbers = {name: int(found[name]) for name in counts}
    return Judgment(verdict=found["verdict"], text=done.stdout, differences=found["differences"], **numbers)
