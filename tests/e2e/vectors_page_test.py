"""docs/vectors.md and vectors/: the page's test runs, and the listener decodes every vector as written."""

import json
import re
import subprocess
import sys
from pathlib import Path

from capture import listen_to_capture, mold_packet, udp_frame, write_pcap

TREE = Path(__file__).resolve().parents[2]
PAGE = (TREE / "docs" / "vectors.md").read_text()


def run(code):
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60,
                          check=False, cwd=TREE)


def test_the_pages_test_finds_nothing_wrong():
    code = re.search(r"```python\n(.*?)```", PAGE, re.S).group(1)
    done = run(code)
    assert done.returncode == 0, done.stderr
    assert done.stdout.strip() == re.search(r"It prints `(.*)`", PAGE).group(1)


def test_the_pages_test_finds_a_decoder_that_is_wrong():
    code = re.search(r"```python\n(.*?)```", PAGE, re.S).group(1)
    broken = code.replace(">Q11sQqQ4s", ">Q11sQQQ4s")
    assert broken != code
    done = run(broken)
    assert done.returncode == 0 and " 0 decoded wrongly" not in done.stdout


def test_the_listener_decodes_every_vector_as_it_is_written(tmp_path):
    files = sorted((TREE / "vectors").iterdir())
    vectors = [json.loads(line) for path in files for line in path.read_text().splitlines()]
    assert len(files) == 22 and len(vectors) > 1000
    for path in files:
        kinds = {json.loads(line)["message"]["kind"] for line in path.read_text().splitlines()}
        assert kinds == {path.stem}
    path = write_pcap(tmp_path / "vectors.pcap",
                      [udp_frame(mold_packet(1 + number, [bytes.fromhex(vector["hex"])]), 25177)
                       for number, vector in enumerate(vectors)])
    lines = [json.loads(line) for line in listen_to_capture(path, "--decode")]
    assert [line.pop("seq") for line in lines] == list(range(1, len(vectors) + 1))
    assert lines == [vector["message"] for vector in vectors]
