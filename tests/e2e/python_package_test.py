"""The Python package: a feed and a listener as fixtures, the judge as a function, the plugin's artifacts."""

import json
import os
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
sys.path.insert(0, str(ROOT / "python"))

import tessel  # noqa: E402
from tessel.process import wait_until  # noqa: E402


def run_python(text, *args, cwd=None):
    environment = {**os.environ, "PYTHONPATH": str(ROOT / "python")}
    return subprocess.run([sys.executable, "-c", text, *map(str, args)], env=environment, cwd=cwd, text=True,
                          capture_output=True, timeout=120, check=False)


def alive(pid):
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
    except FileNotFoundError:
        return False


def test_feed_runs_when_the_constructor_returns_and_obeys():
    with tessel.Feed(symbols="AAPL:190.00", interval_ms=10, seed=3, scenario="name=here") as feed:
        assert any("'here' armed" in line for line in feed.process.stderr)
        assert feed.halt("AAPL") == "ok halt AAPL"
        assert feed.drop(2) == "ok drop 2"
        assert feed.command("frobnicate").startswith("err ")
        assert feed.stats()["halts"] == 1
        feed.resume("AAPL")
        feed.resume("AAPL")
        feed.wait_for_messages(feed.stats()["next_seq"] + 100)
        last = feed.silence()
        assert last == feed.stats()["next_seq"] - 1
        assert json.loads(feed.truth.read_text().splitlines()[-1])["seq"] <= last
        folder, pid = feed.folder, feed.process.pid
    assert not alive(pid)
    assert not folder.exists()


def test_listener_output_agrees_with_the_truth(tmp_path):
    with tessel.Feed(interval_ms=10, options=["--drop-every", 9], folder=tmp_path) as feed, \
            tessel.Listener(feed) as early, tessel.Listener(feed, late=True) as late:
        feed.wait_for_messages(1000)
        feed.silence()
        last = feed.truth.read_text().splitlines()[-1]
        for listener in (early, late):
            wait_until(lambda each=listener: last in each.output.read_text(), 60, "the last line")
            assert listener.close() == 0
    whole = tessel.judge(tmp_path / "truth.jsonl", early.output, about=["seed 7"])
    assert whole.agrees and whole.missing == whole.mismatched == whole.unexpected == 0, whole.text
    assert tessel.judge(tmp_path / "truth.jsonl", late.output, late=True).agrees


def test_judgment_names_the_difference(tmp_path):
    truth, output = tmp_path / "truth.jsonl", tmp_path / "output.jsonl"
    truth.write_text('{"seq":1,"symbol":"A","status":"T"}\n{"seq":2,"symbol":"A","status":"H"}\n')
    output.write_text('{"seq":1,"symbol":"A","status":"T"}\n{"seq":2,"symbol":"A","status":"T"}\n')
    found = tessel.judge(truth, output)
    assert not found.agrees and found.mismatched == 1
    assert [(each["seq"], each["member"]) for each in found.differences] == [(2, "status")]
    with pytest.raises(ValueError, match="nowhere"):
        tessel.judge(truth, tmp_path / "nowhere")


def test_feed_that_does_not_start_raises_its_words():
    with tessel.Feed() as feed, pytest.raises(tessel.StartError, match="Address already in use"):
        tessel.Feed(options=["--snapshot-port", feed.snapshot.split(":")[1]])
    with pytest.raises(tessel.StartError, match="--port: stoi"):
        tessel.Feed(options=["--port", "x"])


def test_programs_die_with_the_interpreter():
    done = run_python("import os, tessel; f = tessel.Feed(); l = tessel.Listener(f);"
                      "print(f.process.pid, l.process.pid, flush=True); os.kill(os.getpid(), 9)")
    assert done.returncode == -9
    pids = [int(word) for word in done.stdout.split()]
    assert len(pids) == 2
    wait_until(lambda: not any(alive(pid) for pid in pids), 30, "their end")


def test_feed_survives_the_thread_that_started_it():
    with_thread = ("import threading, tessel\nfeeds = []\n"
                   "t = threading.Thread(target=lambda: feeds.append(tessel.Feed()))\nt.start(); t.join()\n"
                   "print(feeds[0].stats()['next_seq'] > 1, feeds[0].close())")
    assert run_python(with_thread).stdout.split() == ["True", "0"]


PLUGIN_TEST = """
import pytest

def test_green(tessel_feed, tessel_listener):
    feed = tessel_feed(symbols="AAPL:190.00")
    tessel_listener(feed)

def test_red(tessel_feed, tessel_listener):
    feed = tessel_feed(symbols="AAPL:190.00")
    tessel_listener(feed)
    assert feed.halt("MSFT") == "ok"
"""


def test_plugin_keeps_the_artifacts_of_failures_only(tmp_path):
    (tmp_path / "test_them.py").write_text(PLUGIN_TEST)
    environment = {**os.environ, "PYTHONPATH": str(ROOT / "python")}
    words = [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", "-p", "tessel.pytest_plugin",
             "--tessel-artifacts", tmp_path / "kept", tmp_path / "test_them.py"]
    done = subprocess.run(words, env=environment, cwd=tmp_path, capture_output=True, text=True, timeout=120,
                          check=False)
    assert "1 failed, 1 passed" in done.stdout, done.stdout + done.stderr
    kept = sorted(path.name for path in (tmp_path / "kept").rglob("*") if path.is_file())
    programs = [name.split("-")[0].split(".")[0] for name in kept]
    assert programs == ["listener", "listener", "tessel", "truth"], kept
    assert all("test_red" in str(path) for path in (tmp_path / "kept").glob("*"))


def test_annotations_are_complete(tmp_path):
    done = subprocess.run(["/usr/bin/python3", "-m", "mypy", "--strict", "--cache-dir", tmp_path,
                           ROOT / "python" / "tessel"], cwd=tmp_path, capture_output=True, text=True,
                          timeout=300, check=False)
    assert done.returncode == 0, done.stdout


