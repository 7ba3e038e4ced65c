"""Campaigns of tessel-certify: jobs that know nothing of each other, and their results added up."""

import json
import os
import re
import signal
import subprocess
import time

import pytest

from feed import program
from quick_cases import listen_command, quick_cases
from time_scale import scaled

SEEDS = "seeds=1..5"


def words(*options, handler=None):
    head = [program("tessel-certify")]
    if handler:
        head += ["--handler", handler]
    return [str(word) for word in [*head, *options]]


def environment(cases):
    return {**os.environ, "TESSEL_CASES": str(cases)}


@pytest.fixture(name="campaign", scope="module")
def campaign_fixture(tmp_path_factory):
    """The files of a campaign in one job, in two jobs, and of a handler that does not recover losses."""
    folder = tmp_path_factory.mktemp("campaign")
    cases = quick_cases(folder / "cases")
    plans = {"one": ("1/1", True), "job-1": ("1/2", True), "job-2": ("2/2", True), "bad": ("1/1", False)}
    started = {name: subprocess.Popen(words("--campaign", SEEDS, "--job", job, "--json",
                                            folder / f"{name}.json", handler=listen_command(recovers)),
                                      env=environment(cases), stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL)
               for name, (job, recovers) in plans.items()}
    try:
        status = {name: process.wait(scaled(120)) for name, process in started.items()}
    finally:
        for process in started.values():
            process.kill()
            process.wait()
    assert status == {"one": 0, "job-1": 0, "job-2": 0, "bad": 1}
    return folder


def merge(*files, options=()):
    done = subprocess.run(words("--merge", *files, *options), capture_output=True, text=True, check=False,
                          timeout=scaled(60))
    return done.returncode, done.stdout, done.stderr


def read(path):
    """A file of results without what differs between two runs: times, and lines that depend on them."""
    report = json.loads(path.read_text())
    for case in report["cases"]:
        for name in ("seconds", "truth_lines", "matched"):
            del case[name]
    return report


def test_each_job_runs_its_seeds(campaign):
    for name, seeds in (("one", [1, 2, 3, 4, 5]), ("job-1", [1, 3, 5]), ("job-2", [2, 4])):
        report = json.loads((campaign / f"{name}.json").read_text())
        assert [(case["seed"], case["name"]) for case in report["cases"]] == [
            (seed, f"quick/{case}") for seed in seeds for case in ("loss", "plain")]
    assert report["campaign"] == {"first": 1, "last": 5, "jobs": 2, "done": [2]}


def test_merged_jobs_are_the_same_as_one_job(campaign):
    whole = campaign / "whole.json"
    status, text, complaints = merge(campaign / "job-2.json", campaign / "job-1.json",
                                     options=["--json", whole, "--html", campaign / "whole.html",
                                              "--junit", campaign / "whole.xml"])
    assert (status, complaints) == (0, "")
    assert text.splitlines()[-1] == "10 of 10 runs of 2 cases pass"
    assert read(whole) == read(campaign / "one.json")
    assert 'name="quick/loss seed 4"' in (campaign / "whole.xml").read_text()
    assert "10 of 10 runs" in (campaign / "whole.html").read_text()


def test_a_job_twice_counts_once(campaign):
    again = campaign / "again.json"
    status, text, complaints = merge(*[campaign / f"job-{job}.json" for job in (1, 2, 1)],
                                     options=["--json", again])
    assert status == 0
    assert "6 results were in more than one file and count once" in complaints
    assert json.loads(again.read_text())["totals"] == {"pass": 10, "fail": 0, "error": 0, "skipped": 0}


def test_a_missing_job_is_named_and_no_success(campaign):
    status, text, complaints = merge(campaign / "job-1.json")
    assert status == 1
    assert complaints == "tessel-certify: job 2 of 2 is missing: it runs seeds 2, 4\n"
    assert "6 of 6 runs" in text


def test_failures_are_counted_over_the_seeds(campaign):
    status, text, _ = merge(campaign / "bad.json", options=["--summary-md", campaign / "bad.md"])
    assert status == 1
    assert re.search(r"^FAIL   quick/loss .* 5 of 5 runs, seeds 1, 2, 3 and 2 more: ", text, re.M), text
    assert re.search(r"^PASS   quick/plain .* 5 of 5 runs$", text, re.M), text
    assert "quick/loss" in (campaign / "bad.md").read_text()


def test_broken_files_are_named(campaign, tmp_path):
    sum_file = tmp_path / "sum.json"
    whole = (campaign / "job-1.json").read_text()
    (tmp_path / "cut.json").write_text(whole[:len(whole) // 2])
    for file, reason in ((tmp_path / "cut.json", "no JSON"),
                         (tmp_path / "none.json", "No such file or directory"),
                         (campaign / "one.json", "seeds 1..5 in ")):
        status, _, complaints = merge(campaign / "job-2.json", file, options=["--json", sum_file])
        assert status == 2
        assert reason in complaints and re.search(r"\.json: ", complaints), complaints
        assert len(complaints.splitlines()) == 1 and len(complaints) <= 200 + len(str(tmp_path))
    assert not sum_file.exists()


def test_a_job_that_is_ended_leaves_no_file(campaign, tmp_path):
    process = subprocess.Popen(words("--campaign", "seeds=1..3", "--json", tmp_path / "job.json",
                                     handler=listen_command()), env=environment(campaign / "cases"),
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    try:
        assert "quick/" in process.stderr.readline()  # a case is over, others are running
        process.send_signal(signal.SIGTERM)
        assert process.wait(scaled(60)) not in (0, 1)
    finally:
        process.kill()
        process.wait()
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("options, complaint", [
    (["--campaign", "seeds=3..1", "--json", "x"], "'seeds=3..1' ends before it begins"),
    (["--campaign", "1..3", "--json", "x"], "'1..3' is no range of seeds"),
    (["--campaign", "seeds=1..3"], "--campaign needs --json FILE"),
    (["--campaign", "seeds=1..3", "--json", "x", "--job", "3/2"], "'3/2' is no job"),
    (["--campaign", "seeds=1..3", "--json", "x", "--seed", "1"], "neither --seed nor --repeat"),
    (["--job", "1/2"], "--job needs --campaign"),
    (["--merge", "x"], "--merge runs nothing, so --handler"),
    (["--campaign", "seeds=1..3", "--json", "none/x"], "none/x: No such file or directory"),
])
def test_wrong_options_are_refused_before_anything_runs(options, complaint, tmp_path):
    begin = time.monotonic()
    done = subprocess.run(words(*options, handler="true"), capture_output=True, text=True, check=False,
                          cwd=tmp_path, env=environment(quick_cases(tmp_path / "cases")), timeout=scaled(60))
    assert done.returncode == 2 and time.monotonic() - begin < scaled(10)
    assert complaint in done.stderr, done.stderr
