"""The commands of docs/scale.md, run in their order: each prints what the page shows, numbers aside."""

import os
import re
import shlex
import subprocess
from pathlib import Path

from channels import PortRange
from feed import program, unique_group

PAGE = Path(__file__).resolve().parents[2] / "docs" / "scale.md"


def examples(text):
    """(command, lines shown) of every console example."""
    for block in re.findall(r"```console\n(.*?)```", text, re.S):
        for piece in re.split(r"^\$ ", block, flags=re.M)[1:]:
            command, *lines = piece.splitlines()
            yield command, lines


def masked(line):
    return re.sub(r"\s+", " ", re.sub(r"\d+(\.\d+)?", "#", line)).strip()


def run_examples(text, folder):
    programs = str(Path(program("tesselctl")).parent)
    environment = {**os.environ, "PATH": f"{programs}:{os.environ['PATH']}", "HOME": str(folder)}
    for command, shown in examples(text):
        words = shlex.split(command)
        if words[0].startswith("tessel"):
            words[0] = program(words[0])
        done = subprocess.run(words, capture_output=True, text=True, timeout=200, check=False, cwd=folder,
                              env=environment)
        printed = (done.stdout + done.stderr).splitlines()
        assert done.returncode == 0, (command, printed)
        more = shown[-1:] == ["..."]
        wanted = [masked(line) for line in shown[:-1 if more else None]]
        found = [masked(line) for line in printed]
        assert (found[:len(wanted)] if more else found) == wanted, command


def test_every_example_prints_what_the_page_shows(tmp_path):
    text = PAGE.read_text()
    ports = PortRange(16)
    group = unique_group().rsplit(".", 1)[0] + ".1"
    text = text.replace("239.255.26.1", group).replace("--port-base 26000", f"--port-base {ports.base}")
    symbols = re.search(r"```text\n(.*?)```", text, re.S).group(1)
    (tmp_path / "symbols.txt").write_text(symbols)
    try:
        run_examples(text, tmp_path)
    finally:
        subprocess.run([program("tesselctl"), "channels", "stop", "--dir", tmp_path / "day"],
                       capture_output=True, timeout=200, check=False)
        for lease in ports.leases:
            lease.release()
    days = {path.name for path in (tmp_path / "days").iterdir()}
    assert days == {f"{day}.{kind}" for day in range(1, 5) for kind in ("pcap", "jsonl", "out")}
    truths = {(tmp_path / "days" / f"{day}.jsonl").read_bytes() for day in range(1, 5)}
    assert len(truths) == 4, "each seed is another day"
    again = subprocess.run([program("tessel-capture"), "--seed", "3", "--duration", "10m", "--quiet",
                            "--truth-out", tmp_path / "day.jsonl"], capture_output=True, timeout=200,
                           check=False)
    assert again.returncode == 0
    assert (tmp_path / "day.jsonl").read_bytes() == (tmp_path / "days" / "3.jsonl").read_bytes()
