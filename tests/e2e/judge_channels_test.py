"""tessel-judge over a list of channels."""

import json
import subprocess

import pytest

from feed import program


def lines(last, status="T"):
    return "".join(f'{{"seq":{seq},"symbol":"AAPL","status":"{status}"}}\n' for seq in range(1, last + 1))


@pytest.fixture
def folder(tmp_path):
    names = [f"ch{number:02d}" for number in range(1, 25)]
    (tmp_path / "channels.json").write_text(json.dumps(
        {"version": 1, "channels": [{"name": name, "group": "239.255.26.1"} for name in names]}))
    for side in ("truth", "out"):
        (tmp_path / side).mkdir()
        for number, name in enumerate(names, 1):
            (tmp_path / side / f"{name}.jsonl").write_text(lines(50 * number))
    return tmp_path


def judge(folder, *args):
    return subprocess.run([program("tessel-judge"), "--channels", folder / "channels.json", folder / "truth",
                           folder / "out", *args], capture_output=True, text=True, timeout=120, check=False)


def test_all_channels_agree(folder):
    done = judge(folder, "--json")
    assert done.returncode == 0, done.stderr
    report = json.loads(done.stdout)
    assert (report["verdict"], report["truth_lines"], report["matched"]) == ("AGREES", 15_000, 15_000)
    names = [channel["name"] for channel in report["channels"]]
    assert names == [f"ch{number:02d}" for number in range(1, 25)]
    assert {channel["verdict"] for channel in report["channels"]} == {"AGREES"}
    assert report["channels"][2]["truth_lines"] == 150
    assert judge(folder, "--json", "-", "--jobs", "1").stdout == done.stdout


def test_one_channel_that_differs_decides(folder):
    subprocess.run(["zstd", "-q", "--rm", folder / "truth" / "ch02.jsonl"], check=True)
    (folder / "out" / "ch07.jsonl").write_text(lines(350, "H"))
    done = judge(folder, "--json", folder / "r.json")
    assert done.returncode == 1, done.stderr
    assert done.stdout.startswith("DIFFERS: 23 of 24 channels agree.\n")
    report = json.loads((folder / "r.json").read_text())
    assert (report["verdict"], report["mismatched"]) == ("DIFFERS", 350)
    assert [c["name"] for c in report["channels"] if c["verdict"] != "AGREES"] == ["ch07"]


def test_missing_and_bad_files_are_status_2_with_their_name(folder):
    (folder / "out" / "ch03.jsonl").write_text("rubbish\n")
    done = judge(folder)
    assert (done.returncode, done.stderr) == (
        2, f"tessel-judge: {folder}/out/ch03.jsonl:1: not JSON: broken at byte 1\n")
    (folder / "out" / "ch03.jsonl").unlink()
    done = judge(folder)
    assert done.returncode == 2 and done.stderr.startswith(f"tessel-judge: {folder}/out/ch03.jsonl: open: ")
    truth = folder / "truth" / "ch01.jsonl"
    before = truth.read_text()
    done = judge(folder, "--json", truth)
    assert (done.returncode, truth.read_text()) == (2, before)
    (folder / "channels.json").write_text('{"version":1,"channels":[{"name":"../ch01"}]}')
    done = judge(folder)
    assert done.returncode == 2
    assert done.stderr.endswith("channel 1 has no name that can be a file's\n")
    assert judge(folder, "--report", folder / "page.html").returncode == 2
