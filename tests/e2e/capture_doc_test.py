"""The commands of docs/captures.md run unchanged, and every sample is read back and judged."""

import os
import re
import subprocess
from pathlib import Path

from feed import program
from samples import judge_samples
from time_scale import scaled

ROOT = Path(__file__).resolve().parents[2]
PAGE = ROOT / "docs" / "captures.md"


def test_every_command_of_the_page_runs(tmp_path):
    text = PAGE.read_text()
    timeline, = re.findall(r"```timeline\n(.*?)```", text, re.S)
    (tmp_path / "day.timeline").write_text(timeline)
    commands = [line[2:] for block in re.findall(r"```console\n(.*?)```", text, re.S)
                for line in block.splitlines()]
    assert len(commands) >= 14 and all(command for command in commands)
    folder = Path(program("tessel-capture")).parent
    env = {**os.environ, "PATH": f"{folder}:{os.environ['PATH']}", "TESSEL_BIN": str(folder)}
    env.pop("TESSEL_SCENARIO", None)
    for command in commands:
        done = subprocess.run(["bash", "-c", command.replace("scripts/", f"{ROOT}/scripts/")], cwd=tmp_path,
                              env=env, capture_output=True, text=True, timeout=scaled(240), check=False)
        assert done.returncode == 0, f"{command}\n{done.stdout}{done.stderr}"
    assert (tmp_path / "slow.svg").read_text().startswith("<svg ")


def test_options_of_the_page_are_those_of_the_program():
    text = subprocess.run([program("tessel-capture"), "--help"], capture_output=True, text=True,
                          check=True).stdout
    for option in re.findall(r"^\| `(--[a-z-]+)", PAGE.read_text(), re.M):
        assert f"{option} " in text or f"{option}\n" in text, option


def test_every_sample_is_small_and_judged_to_be_the_truth(tmp_path):
    folder = Path(program("tessel-capture")).parent
    done = subprocess.run([ROOT / "scripts" / "samples", tmp_path / "samples"], capture_output=True,
                          text=True, timeout=scaled(240), check=False,
                          env={**os.environ, "TESSEL_BIN": str(folder)})
    assert done.returncode == 0, done.stderr
    judge_samples(tmp_path / "samples", tmp_path / "lines.jsonl")
