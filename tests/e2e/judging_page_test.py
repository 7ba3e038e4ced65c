"""The commands of docs/judging.md, run as the page has them, with its ports replaced by free ones."""

import json
import os
import re
import subprocess
from pathlib import Path

import pytest

from feed import Process, free_port, program, unique_group, wait_until
from time_scale import scaled

PAGE = (Path(__file__).resolve().parents[2] / "docs" / "judging.md").read_text()

LINES = 2000


def section(title):
    return re.search(rf"^## {title}\n(.*?)(?=^## |\Z)", PAGE, re.S | re.M).group(1)


def blocks(text):
    """The indented blocks of a text, without their indent."""
    found = re.findall(r"(?:^ {4,}\S.*\n)+", text, re.M)
    return [re.sub(r"^ +", "", block, flags=re.M).strip() for block in found]


def block_with(words, title):
    found = [block for block in blocks(section(title)) if words in block]
    assert len(found) == 1, (words, found)
    return found[0]


def environment():
    folder = str(Path(program("tessel-judge")).parent)
    return {**os.environ, "PATH": folder + os.pathsep + os.environ["PATH"]}


def run(script, folder):
    return subprocess.run(["bash", "-c", script], cwd=folder, env=environment(), capture_output=True,
                          text=True, timeout=scaled(120), check=False)


@pytest.fixture
def folder(tmp_path):
    """A truth log and the output of a handler that agrees, with times, under the page's names."""
    lines = [f'{{"seq":{seq},"symbol":"AAPL","received":{5000 + seq},"done":{6000 + seq}}}\n'
             for seq in range(1, LINES + 1)]
    (tmp_path / "truth.jsonl").write_text("".join(f'{{"seq":{seq},"symbol":"AAPL"}}\n'
                                                  for seq in range(1, LINES + 1)))
    (tmp_path / "output.jsonl").write_text("".join(lines))
    (tmp_path / "times.jsonl").write_text("".join(f'{{"seq":{seq},"sip":{4000 + seq}}}\n'
                                                  for seq in range(1, LINES + 1)))
    return tmp_path


def test_five_steps_lead_to_a_good_verdict(tmp_path):
    title = "Five steps, from nothing to a verdict"
    numbers = {number: str(free_port()) for number in ("25177", "25178", "25179", "25180")}
    group = unique_group()

    def here(text):
        for old, new in numbers.items():
            text = text.replace(old, new)
        return text

    addresses = f" --mcast {group} --port {numbers['25177']}"
    listen = re.search(r"`(tessel-listen [^`]*)`", section(title)).group(1)
    handler = Process(["bash", "-c", "exec " + here(listen) + addresses], env=environment(), cwd=tmp_path)
    start = (here(block_with("tessel --truth-out", title)) + addresses +
             f" --retrans-port {numbers['25178']} --snapshot-port {numbers['25179']}")
    feed = None
    try:
        handler.wait_for_line("joined")
        feed = Process(["bash", "-c", "exec env " + start], env=environment(), cwd=tmp_path)
        feed.wait_for_line("tessel fault: dropped")
        truth = tmp_path / "truth.jsonl"
        wait_until(lambda: truth.read_bytes().count(b"\n") >= 500, what="500 truth lines")
        assert run(here(block_with("rate 1000000", title)), tmp_path).returncode == 0
        assert feed.stop() == 0
        assert handler.stop() == 0, handler.stderr
    finally:
        handler.kill()
        if feed is not None:
            feed.kill()
    done = run(block_with("--report report.html", title), tmp_path)
    assert done.returncode == 0 and "AGREES" in done.stdout, done.stdout + done.stderr
    assert "<code>output.jsonl</code>" in (tmp_path / "report.html").read_text()


def test_compressed_truth_and_a_handlers_pipe_are_judged(folder):
    script = "my_handler() { cat output.jsonl; }\n" + block_with("zstd", "What it reads")
    done = run(script, folder)
    assert done.returncode == 0 and "AGREES" in done.stdout, done.stdout + done.stderr


def test_channels_of_a_list_are_judged(folder):
    for name in ("truth", "output"):
        place = folder / name.replace("output", "out")
        place.mkdir()
        (folder / f"{name}.jsonl").rename(place / "ch01.jsonl")
    channel_list = re.search(r'`(\{"version": 1.*?\})`', section("Many channels"), re.S).group(1)
    (folder / "channels.json").write_text(channel_list.replace(", ...", ""))
    done = run(block_with("--channels", "Many channels"), folder)
    assert done.returncode == 0, done.stderr
    result = json.loads((folder / "result.json").read_text())
    assert result["verdict"] == "AGREES"
    assert [channel["name"] for channel in result["channels"]] == ["ch01"]


def test_latencies_are_reported(folder):
    done = run(block_with("--latency", "Latency"), folder)
    assert done.returncode == 0 and "AGREES" in done.stdout, done.stdout + done.stderr
    assert "received" in (folder / "report.html").read_text()
    done = run(block_with("--latency", "Latency").replace("--report report.html", "--json -"), folder)
    assert json.loads(done.stdout)["latency"]["received"]["max"] == 1000


def test_reports_for_programs_have_the_pages_members(folder):
    done = run(block_with("--junit", "Reports for programs"), folder)
    assert done.returncode == 0, done.stderr
    result = json.loads((folder / "result.json").read_text())
    assert result["about"] == ["seed 7"]
    assert "<testsuite" in (folder / "junit.xml").read_text()
    table = re.findall(r"^\| (`.*?) \|", section("Reports for programs"), re.M)
    members = {name for row in table for name in re.findall(r"`(\w+)`", row)}
    # Parts that the JSON has only with their options, or that another row names.
    assert members - set(result) <= {"latency"}, members - set(result)


def test_every_block_of_the_page_is_run_by_a_test():
    source = Path(__file__).read_text()
    run_here = set(re.findall(r'block_with\("([^"]+)"', source))
    for block in blocks(PAGE):
        if "tessel" in block or "printf" in block:
            assert any(words in block for words in run_here), block
