"""certify() of the Python package, with the real program."""

import os
import sys
from pathlib import Path

import pytest

from quick_cases import listen_command, quick_cases

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
sys.path.insert(0, str(ROOT / "python"))

import tessel  # noqa: E402


@pytest.fixture(autouse=True)
def _cases(tmp_path, monkeypatch):
    monkeypatch.setenv("TESSEL_CASES", str(quick_cases(tmp_path / "cases")))


def test_good_handler_passes():
    certificate = tessel.certify(listen_command(), group="quick", late_arg="--late")
    assert certificate.passed
    assert [(case.name, case.verdict, case.reason) for case in certificate.cases] == [
        ("quick/loss", "pass", ""), ("quick/plain", "pass", "")]
    assert "2 of 2 cases pass" in certificate.text


def test_broken_handler_fails_with_the_reason():
    certificate = tessel.certify(listen_command(recovers=False), only=["quick/loss", "quick/plain"])
    assert not certificate.passed
    found = {case.name: (case.verdict, case.reason) for case in certificate.cases}
    assert found["quick/plain"] == ("pass", "")
    assert found["quick/loss"][0] == "fail" and "missing" in found["quick/loss"][1]


def test_handler_that_supports_no_case_has_not_passed():
    certificate = tessel.certify("exit 127", only="quick/plain", options=["--repeat", 2])
    assert [case.verdict for case in certificate.cases] == ["skipped", "skipped"]
    assert not certificate.passed


def test_what_cannot_be_run_raises_with_the_reason():
    with pytest.raises(ValueError, match="quick/none"):
        tessel.certify(listen_command(), only="quick/none")
