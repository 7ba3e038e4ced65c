"""The certification as a function."""

from __future__ import annotations

import json
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path
from typing import Optional, Sequence, Union

from tessel.process import program


@dataclass(frozen=True)
class Case:
    """One case's result: verdict is "pass", "fail", "error" or "skipped"; reason says why it is no pass."""

    name: str
    verdict: str
    reason: str


@dataclass(frozen=True)
class Certificate:
    cases: list[Case]
    text: str

    @property
    def passed(self) -> bool:
        """True when cases ran, and none failed."""
        verdicts = {case.verdict for case in self.cases}
        return "pass" in verdicts and not verdicts & {"fail", "error"}


def certify(handler: str, only: Union[str, Sequence[str], None] = None,
            group: Union[str, Sequence[str], None] = None, late_arg: Optional[str] = None,
            options: Sequence[object] = ()) -> Certificate:
    """Runs the catalog of cases against a command line with placeholders such as {group} and {out}.

    only, group    cases or groups of cases to run; all when None
    late_arg       what {late} becomes in cases that start the handler in mid-run
    options        further options of tessel-certify

    Raises ValueError when the cases could not be run.
    """
    with tempfile.TemporaryDirectory(prefix="tessel-") as folder:
        report = Path(folder) / "certificate.json"
        words = [program("tessel-certify"), "--handler", handler, "--json", str(report)]
        for option, names in (("--only", only), ("--group", group)):
            if names is not None:
                words += [option, names if isinstance(names, str) else ",".join(names)]
        if late_arg is not None:
            words += ["--late-arg", late_arg]
        done = subprocess.run([*words, *map(str, options)], capture_output=True, text=True, errors="replace",
                              check=False)
        if done.returncode not in (0, 1):
            raise ValueError(done.stderr.strip() or f"tessel-certify ended with status {done.returncode}")
        found = json.loads(report.read_text())
    cases = [Case(each["name"], each["verdict"], each.get("reason") or "") for each in found["cases"]]
    return Certificate(cases=cases, text=done.stdout)
