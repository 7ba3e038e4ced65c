"""The examples of docs/tesselctl.md, run in their order: each prints what the page shows, numbers aside."""

import re
import shlex
import subprocess
from pathlib import Path

from feed import Process, free_port, program, unique_group

PAGE = Path(__file__).resolve().parents[2] / "docs" / "tesselctl.md"


def page_with_addresses():
    """The page's text with a group and ports that no other test uses, and the control port."""
    text = PAGE.read_text().replace("239.255.25.177", unique_group())
    control = 0
    for port in ("25177", "25178", "25179", "25180"):
        control = free_port()
        text = text.replace(port, str(control))
    return text, control


def write_files(text, folder):
    """The files that the page shows, each after its name."""
    for name, body in re.findall(r"`([\w.]+)`(?::| is)\n\n```(?:toml|text)\n(.*?)```", text, re.S):
        (folder / name).write_text(body)
    assert {each.name for each in folder.iterdir()} == {"day.toml", "bad.toml", "day.txt", "typo.txt"}


def examples(text):
    """(command, lines shown) of every console example."""
    for block in re.findall(r"```console\n(.*?)```", text, re.S):
        for piece in block.split("$ ")[1:]:
            command, *lines = piece.splitlines()
            yield command, lines


def masked(line):
    return re.sub(r"\s+", " ", re.sub(r"\d+(\.\d+)?", "#", line)).strip()


def test_every_example_of_the_page_prints_what_it_shows(tmp_path):
    text, control = page_with_addresses()
    write_files(text, tmp_path)
    feed = None
    try:
        for command, shown in examples(text):
            words = shlex.split(command)
            assert words[0] == "tesselctl"
            words = [program("tesselctl"), "--control", f"127.0.0.1:{control}", *words[1:]]
            if words[3:] == ["run", "--config", "day.toml"] and feed is None:
                feed = Process(words, cwd=tmp_path)
                feed.wait_for_line("[tessel] UQDF+UTDF")
                assert masked(feed.stderr[0]) == masked(shown[0])
                continue
            done = subprocess.run(words, capture_output=True, text=True, timeout=120, check=False,
                                  cwd=tmp_path)
            printed = (done.stdout + done.stderr).replace(program("tessel"), "/usr/bin/tessel").splitlines()
            assert done.returncode in (0, 1, 2)
            more = shown[-1] == "..."
            wanted = [masked(line) for line in shown[:-1 if more else None]]
            found = [masked(line) for line in printed]
            assert (found[:len(wanted)] if more else found) == wanted, command
        feed.stop()
    finally:
        if feed is not None:
            feed.kill()


def test_the_page_lists_every_key():
    listed = {word for row in re.findall(r"^\| `\[\w+\]` \| (.*) \|$", PAGE.read_text(), re.M)
              for word in re.findall(r"`([a-z_]+)`", row)}
    source = (PAGE.parents[1] / "tools/ctl/settings.cpp").read_text()
    keys = re.findall(r'^\s+\{"(?:feed|faults|scenario)", "(\w+)"', source, re.M)
    assert len(keys) == 33
    assert set(keys) | {"symbols_file"} == listed
