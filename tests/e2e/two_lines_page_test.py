"""The commands of docs/two-lines.md and docs/latency.md do what the pages say."""

import re
import shlex
import subprocess
from pathlib import Path

import pytest

from feed import Feed, Process, free_port, program, unique_group
from time_scale import scaled

DOCS = Path(__file__).resolve().parents[2] / "docs"


def blocks(page, language):
    return re.findall(rf"```{language}\n(.*?)```", (DOCS / page).read_text(), re.S)


def replace_all(text, replacements):
    for old, new in replacements.items():
        assert old in text, old
        text = text.replace(old, str(new))
    return text


def test_two_lossy_lines_of_the_page_give_everything(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    ports = {"26001": free_port(), "26002": free_port()}
    lines = {"239.255.26.1": unique_group(), "239.255.26.2": unique_group(), **ports}
    commands, = blocks("two-lines.md", "bash")
    relay_command, listen_command, feed_command = commands.strip().splitlines()
    assert feed_command == "tessel --truth-out truth.jsonl"
    relay_words = shlex.split(replace_all(relay_command.rstrip("& "), lines))
    words = shlex.split(replace_all(listen_command.rstrip("& "), {"25178": feed.retrans_port, **lines}))
    assert words[0] == "tessel-listen" and words[-2:] == ["--seconds", "20"]
    relay = Process([program(relay_words[0]), *feed.receiver_args(), *relay_words[1:]])
    with relay:
        relay.wait_for_line("joined")
        receiver = Process([program(words[0]), *words[1:-2]], cwd=tmp_path)
        receiver.wait_for_line("joined")
        with receiver, feed:
            feed.wait_for_messages(3000)
            feed.fall_silent()
            assert relay.stop() == 0, relay.stderr
            assert receiver.stop() == 0, receiver.stderr
    rows = [line for line in receiver.stderr if re.match(r"tessel-listen: line [AB]: \d+ first, \d+ second, "
                                                         r"\d+ missing, behind [\d.]+ ms$", line)]
    assert len(rows) == 2, receiver.stderr
    truth = [line for line in feed.truth_lines() if '"mark"' not in line]
    written = (tmp_path / "received.jsonl").read_text().splitlines()
    assert len(written) > 2000 and written == truth[:len(written)]


def test_the_latency_pages_command_prints_and_writes_what_it_says(tmp_path):
    feed = Feed(tmp_path, interval_ms=2)
    commands, = blocks("latency.md", "bash")
    make, listen = commands.strip().splitlines()
    subprocess.run(shlex.split(make), cwd=tmp_path, check=True, timeout=scaled(30))
    words = shlex.split(listen)
    assert words[-2:] == ["--seconds", "10"]
    receiver = Process([program(words[0]), *feed.receiver_args(), *words[1:-2]], cwd=tmp_path)
    receiver.wait_for_line("joined")
    with receiver, feed:
        receiver.wait_for_line("latency of the last second, kernel-to-taken")
        feed.fall_silent()
        assert receiver.stop() == 0
    for stage in ("sip-to-kernel", "kernel-to-taken"):
        example = next(line.strip() for line in (DOCS / "latency.md").read_text().splitlines()
                       if f"tessel-listen: latency {stage}" in line)
        form = re.sub(r"\d+", r"\\d+", re.escape(example).replace(r"\.", "."))
        assert any(re.fullmatch(form, line) for line in receiver.stderr), (form, receiver.stderr)
        assert (tmp_path / "latency" / f"{stage}.hgrm").stat().st_size > 0
    assert (tmp_path / "latency" / "latency.hlog").stat().st_size > 0
    assert (tmp_path / "times.jsonl").read_text().startswith('{"seq":1,"sip":')


@pytest.mark.parametrize("words", [["--line", "A=10.0.0.1:1"], ["--line", "A=239.1.1.1:1", "--port", "2"],
                                   ["--line", "A=239.1.1.1:1", "--line", "A=239.1.1.1:2"],
                                   ["--latency-out", "/nowhere/at/all"], ["--patience-ms", "-1"]])
def test_options_that_are_wrong_end_with_2_and_one_short_line(words):
    done = subprocess.run([program("tessel-listen"), *words], capture_output=True, text=True,
                          timeout=scaled(30), check=False)
    assert done.returncode == 2
    assert done.stderr.startswith("tessel-listen: ") and done.stderr.count("\n") == 1
    assert len(done.stderr) <= 201
