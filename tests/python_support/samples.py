"""Reads the samples of a folder as their README.md says, and judges each."""

import re
import subprocess

from feed import program
from time_scale import scaled

NAMES = {"quiet-minute", "opening", "loss-and-recovery", "late-join", "halts-and-pauses", "circuit-breaker",
         "corrections", "odd-lots-and-long-forms"}
BYTES_MAX = 2_000_000


def run(*command):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False,
                          timeout=scaled(240))
    assert done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout}{done.stderr}"
    return done.stdout


def judge_samples(folder, lines):
    """Asserts that `folder` has every sample, each judged to be the truth; `lines` is a file to write."""
    captures = {path.name.removesuffix(".pcap.zst"): path for path in folder.glob("*.pcap.zst")}
    assert captures.keys() == NAMES
    table = (folder / "README.md").read_text()
    for name, capture in captures.items():
        truth = folder / f"{name}.truth.jsonl.zst"
        assert capture.stat().st_size < BYTES_MAX and truth.stat().st_size < BYTES_MAX
        row, = re.findall(rf"^\| `{name}` \|.*$", table, re.M)
        options = re.search(r"\| `(--[^`]*)` \|$", row)
        late = ["--late"] if "late" in name else []
        ways = [options.group(1).split() if options else []]
        # A receiver that has the retransmission service gets the same verdict.
        if not late and "--retrans" not in ways[0]:
            ways.append(["--retrans", "127.0.0.1:25178"])
        for way in ways:
            run(program("tessel-listen"), "--from-pcap", capture, *way, "--out", lines)
            assert run(program("tessel-judge"), truth, lines, *late).startswith("AGREES"), name
