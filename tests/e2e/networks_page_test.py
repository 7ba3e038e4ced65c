"""Every block of docs/networks.md is run unchanged and prints what the page says, each in namespaces that
vanish with it."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from feed import program
from net import can_make_namespaces

PAGE = Path(__file__).resolve().parents[2] / "docs" / "networks.md"
SECTIONS = re.findall(r"^## (.*?)\n(.*?)(?=^## |\Z)", PAGE.read_text(), re.S | re.M)
BLOCKS = [(heading.strip(), body) for heading, section in SECTIONS
          for body in re.findall(r"```sh\n(.*?)```", section, re.S)]

# Names of network namespaces are files in /run/netns; here they are this process's alone.
FRAME = """
mount -t tmpfs none /run/netns 2>/dev/null || { mkdir -p /run/netns && mount -t tmpfs none /run/netns; }
mount -t sysfs none /sys
trap 'status=$?; for job in $(jobs -p); do kill $job; done; wait; exit $status' EXIT
set -e
"""


def has_netem():
    """Whether the kernel has the scheduler; a page is no reason to load a module."""
    if not can_make_namespaces() or shutil.which("tc") is None:
        return False
    add = "tc qdisc add dev lo root netem loss 1%".split()
    return subprocess.run(["unshare", "--net", *add], capture_output=True, check=False).returncode == 0


def with_wait(body):
    """The block, with a wait for its feed's banner after each program that it puts into the background."""
    return re.sub(r"^(.*tesselctl run .*) &$",
                  r"\1 2>feed.log &\nuntil grep -q 'UQDF+UTDF' feed.log; do kill -0 $!; sleep 0.02; done",
                  body, flags=re.M)


def test_the_page_has_blocks():
    assert len(BLOCKS) >= 8


@pytest.mark.skipif(not can_make_namespaces(), reason="network namespaces cannot be made here")
@pytest.mark.parametrize("heading, body", BLOCKS, ids=[heading for heading, _ in BLOCKS])
def test_a_block_prints_what_the_page_says(tmp_path, heading, body):
    for tool in ("nft", "jq", "sysctl", "tc"):
        if re.search(rf"\b{tool}\b", body) and shutil.which(tool) is None:
            pytest.skip(f"{tool} is not installed")
    if "netem" in body and not has_netem():
        pytest.skip("this kernel has no netem")
    env = dict(os.environ, PATH=os.path.dirname(program("tesselctl")) + ":" + os.environ["PATH"])
    done = subprocess.run(["unshare", "--net", "--mount", "--propagation", "private", "bash", "-c",
                           FRAME + with_wait(body)],
                          capture_output=True, text=True, timeout=200, check=False, cwd=tmp_path, env=env)
    output = done.stdout + done.stderr
    assert done.returncode == 0, output
    wanted = re.findall(r"^#=> (.*)$", body, re.M)
    assert wanted, heading
    for line in wanted:
        assert re.sub(r"\s+", " ", line) in re.sub(r"\s+", " ", output), output
