"""tessel-certify with handlers that behave and others: verdicts, reasons, reports, what is left behind."""

import json
import os
import re
import shlex
import signal
import subprocess
import time
import uuid
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest
from feed import program, wait_until
from time_scale import scaled

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
SECONDS = 120  # for a run of few cases: far more than any takes

# For cases that are to fail by a limit: on a busy machine they would only take longer.
UNSCALED = os.environ | {"TESSEL_TIME_SCALE": "1"}

LISTEN = (f"{shlex.quote(program('tessel-listen'))} --mcast {{group}} --port {{port}} --iface {{iface}}"
          " --session {session} --retrans {retrans} {late}")
GOOD = f"exec {LISTEN} --out {{out}}"
LATE_ARG = "--late-arg=--snapshot {snapshot} --user test"

CASE = """
title = "{title}"
[feed]
symbols = ["AAPL:190.00", "MSFT:410.00"]
interval_ms = 10
[run]
seconds = 0.3
{run}
[expect]
members = ["nbbo"]
wait_seconds = {wait}
"""

LONG_CASE = CASE.format(title="Long", run="", wait=0.1).replace("0.3", "100")


@pytest.fixture(name="cases")
def make_cases(tmp_path):
    """A folder with two short cases: the handler is started before the feed, and late."""
    folder = tmp_path / "cases"
    (folder / "own").mkdir(parents=True)
    (folder / "own/early.toml").write_text(CASE.format(title="Started before the feed", run="", wait=0.1))
    (folder / "own/late.toml").write_text(
        CASE.format(title="Started late", run='start = "late"\nlate_after = 0.3', wait=0.5))
    return folder


def certify(cases, *words, **options):
    """A finished run: status, standard output, standard error."""
    command = [program("tessel-certify"), "--cases", str(cases), *map(str, words)]
    return subprocess.run(command, capture_output=True, text=True, timeout=scaled(SECONDS), check=False,
                          **options)


def results(cases, handler, *words, only="own/early", **options):
    """The run's status and the JSON report of some cases."""
    done = certify(cases, "--handler", handler, "--only", only, "--json", "-", *words, **options)
    assert done.stdout, done.stderr
    return done.returncode, json.loads(done.stdout)


def result(cases, handler, *words, only="own/early", **options):
    """The same of one case: status, verdict, reason."""
    status, report = results(cases, handler, *words, only=only, **options)
    [case] = report["cases"]
    return status, case["verdict"], case["reason"]


def processes_with(text):
    """Numbers of the processes whose command line has this text, other than zombies."""
    found = []
    for path in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            if text.encode() in path.read_bytes():
                found.append(int(path.parent.name))
        except OSError:
            pass
    return found


def started(words, folder):
    """tessel-certify with `folder` for its files."""
    return subprocess.Popen(list(map(str, words)), env=os.environ | {"TMPDIR": str(folder)},
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def mark():
    """A number for `sleep`, so that a test finds the processes that are its own."""
    return f"3600.{uuid.uuid4().int % 10**9:09}"


def test_a_good_handler_passes_early_and_late(cases, tmp_path):
    kept = tmp_path / "kept"
    status, report = results(cases, GOOD, LATE_ARG, "--out", kept, only="own/early,own/late")
    assert [(case["name"], case["verdict"], case["reason"]) for case in report["cases"]] == [
        ("own/early", "pass", ""), ("own/late", "pass", "")]
    assert status == 0
    assert report["handler"] == GOOD and report["seed"] == 1
    assert report["tool"].startswith("tessel-certify ")
    assert report["totals"] == {"pass": 2, "fail": 0, "error": 0, "skipped": 0}
    assert report["causes"] == []
    for case in report["cases"]:
        assert {"name", "group", "title", "verdict", "reason", "seconds", "seed", "command"} <= set(case)
        assert case["truth_lines"] > 50 and case["group"] == "own"
    assert not list(kept.rglob("*.jsonl"))


@pytest.mark.parametrize("handler, words, reason", [
    ("exit 3", [], "handler ended with status 3"),
    ("exit 0", [], "handler ended with status 0"),
    ("kill -SEGV $$", [], "handler was killed by signal 11"),
    (f"{LISTEN} --out {{out}} & sleep 0.2; kill -ABRT $!; wait $!", ["--ready", "delay:0.1"],
     "handler was killed by signal 6"),
    ("exec sleep 1000", ["--ready-timeout", "0.5"], "handler did not get ready within 0.5 s"),
    (f"{LISTEN} --out /dev/null", [], "no line was written"),
    (f"{LISTEN} --out /dev/null & : >{{out}}; wait", [], "no line was written"),
    (f"echo hello >{{out}}; exec {LISTEN}", [], "line 1 is not JSON"),
    (f"printf '{{\"seq\":1}}\\n\\nnot so\\n' >{{out}}; exec {LISTEN}", [], "line 3 is not JSON"),
    (f"echo '{{\"bid\":1}}' >{{out}}; exec {LISTEN}", [], "line 1: there is no \"seq\""),
    (f"echo '{{\"seq\":900000}}' >{{out}}; exec {LISTEN}", [], None),
    (f"mkfifo {{out}}; exec {LISTEN}", [], "no line was written"),
])
def test_a_handler_that_misbehaves_fails_with_its_reason(cases, handler, words, reason):
    status, verdict, found = result(cases, handler, *words)
    assert (status, verdict) == (1, "fail")
    if reason is not None and "seq" not in reason:
        assert found == reason
    elif reason is not None:
        assert found.startswith("line 1:") and "not JSON" not in found
    else:
        assert "missing" in found and "1 line unexpected" in found


def test_a_handler_that_does_not_end_is_killed_with_all_it_started(cases):
    number = mark()
    handler = f"trap '' INT TERM; {LISTEN} --out {{out}} & while :; do sleep {number}; done"
    assert result(cases, handler, env=UNSCALED) == (1, "fail", "handler did not end within 5 s of SIGINT")
    assert processes_with(number) == []


def test_a_handler_that_ends_at_sigterm_passes(cases):
    handler = f"trap '' INT; {LISTEN} --out {{out}} & p=$!; trap 'kill $p; wait $p; exit 0' TERM; wait; wait"
    assert result(cases, handler) == (0, "pass", "")


def test_what_left_the_process_group_is_ended_with_the_case(cases):
    number = mark()
    handler = f"setsid sh -c 'sleep {number} & sleep {number}' & setsid -f sleep {number}; {GOOD}"
    assert result(cases, handler) == (0, "pass", "")
    assert processes_with(number) == []


def test_status_127_is_skipped_and_alone_is_no_success(cases):
    handler = f'case $TESSEL_CASE in own/late) exit 127;; esac; {GOOD}'
    status, report = results(cases, handler, only="own/early,own/late")
    assert status == 0
    assert [case["verdict"] for case in report["cases"]] == ["pass", "skipped"]
    assert report["totals"] == {"pass": 1, "fail": 0, "error": 0, "skipped": 1}
    assert results(cases, handler, only="own/late")[0] == 1


def test_placeholders_are_environment_variables_too(cases, tmp_path):
    seen = tmp_path / "seen"
    words = "{group} {port} {iface} {session} {retrans} {snapshot} {out} [{late}]"
    names = ("$TESSEL_GROUP $TESSEL_PORT $TESSEL_IFACE $TESSEL_SESSION $TESSEL_RETRANS $TESSEL_SNAPSHOT"
             " $TESSEL_OUT [$TESSEL_LATE]")
    handler = (f'echo "{words}" >>{seen}; echo "{names}" >>{seen}; echo "$TESSEL_CASE {{other}}" >>{seen}; '
               + GOOD)
    assert results(cases, handler, LATE_ARG, "--jobs", 1, only="own/early,own/late")[0] == 0
    lines = seen.read_text().splitlines()
    assert lines[0] == lines[1] and lines[0].endswith("[]") and lines[2] == "own/early {other}"
    assert lines[3] == lines[4] and lines[5] == "own/late {other}"
    snapshot = lines[3].split()[5]
    assert lines[3].endswith(f"[--snapshot {snapshot} --user test]")
    assert re.match(r"239\.255\.\d+\.\d+ \d+ 127\.0\.0\.1 \S{10} 127\.0\.0\.1:\d+ 127\.0\.0\.1:\d+ /",
                    lines[0])


@pytest.mark.parametrize("ready, before", [
    ("file:{out}.ready", "touch {out}.ready; "),
    ("port:{port}", ""),
    ("line:waits no more", "echo it waits no more; "),
    ("delay:0.3", ""),
])
def test_a_handler_says_when_it_is_ready(cases, ready, before):
    assert result(cases, before + GOOD, "--ready", ready)[:2] == (0, "pass")
    if not ready.startswith("delay"):
        never = "sleep 1000"
        assert result(cases, never, "--ready", ready, "--ready-timeout", 0.5, env=UNSCALED)[2] == (
            "handler did not get ready within 0.5 s")


def test_failures_keep_their_files_and_a_command_that_runs_the_case_alone(cases, tmp_path):
    kept = tmp_path / "kept"
    handler = f"""echo "it's here"; exec {LISTEN} --out /dev/null"""
    _, report = results(cases, handler, "--out", kept, "--seed", 5)
    [case] = report["cases"]
    folder = kept / "own" / "early"
    assert {"truth.jsonl", "handler.log", "feed.log", "feed.pcap", "command.txt"} <= set(os.listdir(folder))
    assert "it's here" in (folder / "handler.log").read_text()
    group, port = re.search(r"UTDF ([\d.]+):(\d+) ", (folder / "feed.log").read_text()).groups()
    replay = subprocess.run([program("tessel-listen"), "--from-pcap", folder / "feed.pcap", "--mcast", group,
                             "--port", port, "--out", "-"],
                            capture_output=True, text=True, timeout=scaled(SECONDS), check=False)
    assert replay.stdout == (folder / "truth.jsonl").read_text()
    assert (folder / "command.txt").read_text().strip() == case["command"]
    path = f"{Path(program('tessel-certify')).parent}:{os.environ['PATH']}"
    again = subprocess.run(["sh", "-c", case["command"] + " --json -"], capture_output=True, text=True,
                           check=False, timeout=scaled(SECONDS), env=os.environ | {"PATH": path})
    assert again.returncode == 1
    [repeated] = json.loads(again.stdout)["cases"]
    assert repeated["name"] == "own/early" and repeated["seed"] == 5
    assert repeated["command"] == case["command"] and repeated["reason"] == "no line was written"
    # A later run that passes leaves no files of an earlier failure.
    assert result(cases, GOOD, "--out", kept) == (0, "pass", "")
    assert not list(kept.rglob("*.*"))


def test_a_seed_gives_the_same_market_and_another_gives_another(cases, tmp_path):
    def first_lines(seed, folder):
        results(cases, f"exec {LISTEN} --out /dev/null", "--seed", seed, "--out", tmp_path / folder)
        return (tmp_path / folder / "own/early/truth.jsonl").read_text().splitlines()[:40]
    assert first_lines(3, "a") == first_lines(3, "b")
    assert first_lines(3, "c") != first_lines(4, "d")


def test_repeated_runs_have_seeds_one_after_the_other(cases):
    status, report = results(cases, GOOD, "--repeat", 3, "--seed", 7)
    assert status == 0
    assert [case["name"] for case in report["cases"]] == ["own/early"] * 3
    assert [case["seed"] for case in report["cases"]] == [7, 8, 9]
    assert "--seed=8" in report["cases"][1]["command"]


def test_several_handlers_are_a_matrix(cases, tmp_path):
    done = certify(cases, "--handler", f"good={GOOD}", "--handler", f"blind={LISTEN} --out /dev/null",
                   "--only", "own/early", "--json", tmp_path / "report.json", "--out", tmp_path / "kept")
    assert done.returncode == 1
    report = json.loads((tmp_path / "report.json").read_text())
    assert {case["handler"]: case["verdict"] for case in report["cases"]} == {"good": "pass", "blind": "fail"}
    assert (tmp_path / "kept/blind/own/early/truth.jsonl").exists()
    assert "good" in done.stdout and "blind" in done.stdout


@pytest.mark.parametrize("words, said", [
    (["--only", "own/early"], "--handler is missing"),
    (["--handler", "x", "--only", "own/nothing"], "there is no case 'own/nothing'"),
    (["--handler", "x", "--group", "onw"], "did you mean 'own'?"),
    (["--handler", "x", "--ready", "soon"], "--ready"),
    (["--handler", "./a", "--handler", "./b"], "has no name"),
    (["--handler", "a=./x", "--handler", "a=./y"], "there twice"),
    (["--handler", "x", "--jobs", "0"], "--jobs"),
    (["--handler", "x", "--unknown"], "unknown"),
    (["--handler", "x", "--out", "/dev/null/x"], "/dev/null/x"),
    (["--handler", "x", "--json", "/dev/null/x"], "/dev/null/x"),
    (["--explain", "own/nothing"], "there is no case"),
])
def test_a_wrong_command_line_is_status_2_before_anything_starts(cases, words, said):
    done = certify(cases, *words)
    assert done.returncode == 2 and done.stdout == ""
    assert done.stderr.startswith("tessel-certify: ") and said in done.stderr
    assert all(len(line) <= 200 for line in done.stderr.splitlines())


@pytest.mark.parametrize("text, said", [
    ("title = ", "no TOML"),
    ('[run]\nseconds = 1\n', "title"),
    ('title = "x"\n[run]\nsecond = 1\n', "did you mean 'seconds'?"),
    ('title = "x"\n[run]\nseconds = -1\n', "seconds"),
    ('title = "x"\n[feed]\nport = 25177\n', "chosen anew"),
    ('title = "x"\n[feed]\ninterval_ms = "x"\n', "feed.interval_ms"),
    ('title = "x"\n[run]\ntimeline = """\n+1s hlat AAPL\n"""\n', "hlat"),
    ('title = "x"\n[[traffic]]\nkind = "nothing_known"\n', "nothing_known"),
    ('title = "x"\n[expect]\nmembers = ["nbo"]\n', "did you mean 'nbbo'?"),
])
def test_a_broken_case_file_is_status_2_before_anything_starts(cases, tmp_path, text, said):
    (cases / "own/broken.toml").write_text(text)
    touched = tmp_path / "touched"
    done = certify(cases, "--handler", f"touch {touched}", "--only", "own/early")
    assert done.returncode == 2 and "broken.toml" in done.stderr and said in done.stderr
    assert not touched.exists()
    assert certify(cases, "--list").returncode == 2


def test_a_list_that_cannot_be_written_is_status_2(cases):
    with open("/dev/full", "wb") as full:
        done = subprocess.run([program("tessel-certify"), "--cases", cases, "--list"], stdout=full, text=True,
                              stderr=subprocess.PIPE, timeout=scaled(SECONDS), check=False)
    assert done.returncode == 2 and done.stderr.startswith("tessel-certify: standard output: ")


def test_list_and_explain_need_no_handler(cases):
    done = certify(cases, "--list", "--group", "own")
    assert done.returncode == 0
    assert done.stdout == "own/early  Started before the feed\nown/late  Started late\n"
    every = certify(cases, "--list").stdout.splitlines()
    assert len(every) > 60 and all(re.fullmatch(r"\w+/\w+  \S.*", line) for line in every)
    shown = certify(cases, "--explain", "loss/one_packet")
    assert shown.returncode == 0 and re.search(r"docs/\w+(-\w+)*\.md#\S+", shown.stdout)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_leaves_nothing_behind(cases, tmp_path, number):
    sleep, folder = mark(), tmp_path / "tmp"
    folder.mkdir()
    handler = f"setsid -f sleep {sleep}; sleep {sleep} & {GOOD}"
    (cases / "own/long.toml").write_text(LONG_CASE)
    words = [program("tessel-certify"), "--cases", cases, "--handler", handler, "--group", "own"]
    with started(words, folder) as running:
        wait_until(lambda: len(processes_with(sleep)) >= 2, what="the handler's processes")
        running.send_signal(number)
        assert running.wait(scaled(60)) == -number
    assert processes_with(sleep) == [] and processes_with(str(folder)) == []
    assert list(folder.iterdir()) == []


def test_when_it_is_killed_its_cases_end_what_they_started(cases, tmp_path):
    sleep = mark()
    handler = f"setsid -f sleep {sleep}; {GOOD}"
    (cases / "own/long.toml").write_text(LONG_CASE)
    words = [program("tessel-certify"), "--cases", cases, "--handler", handler, "--only", "own/long"]
    folder = tmp_path / "tmp"
    folder.mkdir()
    with started(words, folder) as running:
        wait_until(lambda: processes_with(sleep), what="the handler's processes")
        running.kill()
    wait_until(lambda: not processes_with(sleep) and not processes_with(str(folder)), what="the end of all")
    wait_until(lambda: not list(folder.iterdir()), what="an empty folder")


def test_hostile_names_and_output_are_escaped_everywhere(cases, tmp_path):
    hostile = "<script>alert('x')</script>&\"]]>"
    handler = f"<b>&x={'echo ' + shlex.quote(hostile) + chr(59)} printf '\\377\\033[31m\\000'; exit 3"
    reports = {name: tmp_path / f"report.{name}" for name in ("json", "xml", "md", "html")}
    done = certify(cases, "--handler", handler, "--handler", f"good={GOOD}", "--only", "own/early",
                   "--json", reports["json"], "--junit", reports["xml"], "--summary-md", reports["md"],
                   "--html", reports["html"], "--about", hostile)
    assert done.returncode == 1 and "\033[31m" not in done.stdout + done.stderr
    report = json.loads(reports["json"].read_text())
    assert report["cases"][0]["handler"] == "<b>&x"
    assert hostile in report["cases"][0]["log_tail"] and report["about"] == [hostile]
    ElementTree.parse(reports["xml"])
    markdown = re.sub(r"(?ms)^(`{3,}).*?^\1", "", reports["md"].read_text())  # code is shown as it is
    for text in (markdown, reports["html"].read_text()):
        assert "<script>alert" not in text and "<b>&x" not in text


def test_progress_is_a_line_a_case_without_a_terminal(cases):
    done = certify(cases, "--handler", GOOD, LATE_ARG, "--only", "own/early,own/late")
    assert done.returncode == 0
    line = r"\[[12]/2\] own/\w+ pass \(\d+\.\d s\)"
    assert re.fullmatch(f"{line}\n{line}\n", done.stderr)


def test_a_load_case_gives_a_curve_and_the_highest_rate_without_loss(cases, tmp_path):
    (cases / "own/rates.toml").write_text('title = "Rates"\n[run]\nseconds = 0.5\n'
                                          "[expect]\nwait_seconds = 0.3\n"
                                          "[load]\nrates = [300, 2000]\npass_rate = 2000\n")
    status, report = results(cases, GOOD, only="own/rates")
    [case] = report["cases"]
    assert (status, case["verdict"], case["reason"]) == (0, "pass", "")
    assert [missing for _, missing in case["curve"]] == [0] * len(case["curve"])
    assert case["highest_rate"] == max(rate for rate, _ in case["curve"]) > 100
    # A handler that keeps only the first 300 lines loses more at the higher rate.
    lossy = (f"{LISTEN} --out {{out}}.all & p=$!; "
             "trap 'kill $p; wait $p; head -n 300 {out}.all >{out}' INT; wait")
    status, report = results(cases, lossy, only="own/rates")
    [case] = report["cases"]
    assert (status, case["verdict"]) == (1, "fail") and "are to be done" in case["reason"]
    assert case["curve"][-1][1] > 0 and case["highest_rate"] <= case["curve"][0][0]


def test_cases_run_side_by_side(cases):
    begin = time.monotonic()
    _, report = results(cases, "exec sleep 1000", "--repeat", 4, "--jobs", 4, "--ready-timeout", 2,
                        env=UNSCALED)
    took = time.monotonic() - begin
    assert took < 0.75 * sum(case["seconds"] for case in report["cases"])
