"""The page about the console: its commands are run and print what it shows, its tables name what there is."""

import os
import re
import subprocess
from pathlib import Path

import pytest
from console import Console
from feed import Feed, Process, program, wait_until
from time_scale import scaled

PAGE = (Path(__file__).resolve().parents[2] / "docs" / "console.md").read_text()


def examples():
    """Each command of the console blocks, in order, with the lines that it prints."""
    found = []
    for block in re.findall(r"^```console\n(.*?)^```$", PAGE, re.M | re.S):
        for line in block.splitlines():
            if line.startswith("$ "):
                found.append((line[2:], []))
            else:
                found[-1][1].append(line)
    assert len(found) > 12
    return found


def masked(lines):
    """Numbers differ from run to run, and where the last trade was."""
    varying = r'-?\d+(\.\d+)?(e-?\d+)?|(?<="center":")\w|(?<="conditions":")[^"]*|(?<="condition":")\w'
    return [re.sub(varying, "#", line) for line in lines]


@pytest.fixture(scope="module", name="shell")
def _shell(tmp_path_factory):
    """Runs a command in the shell that the page's first commands have prepared."""
    folder = tmp_path_factory.mktemp("page")
    feed = Feed(folder, truth=False, symbols="AAPL:190.00,MSFT:410.00")
    environment = {**os.environ, "PATH": f"{Path(program('tessel-console')).parent}:{os.environ['PATH']}"}
    (start, _), (until, _), (names, _) = examples()[:3]
    own = f"--feed {feed.group}:{feed.port} --http 127.0.0.1:0 --control 127.0.0.1:{feed.control_port}"
    start = start.replace("tessel-console ", f"exec tessel-console {own} ")
    start = start.replace("25178", str(feed.retrans_port)).replace("25179", str(feed.snapshot_port))
    with Process(["bash", "-c", start.removesuffix(" &")], cwd=folder, env=environment) as console:
        subprocess.run(["bash", "-c", until], cwd=folder, env=environment, check=True, timeout=scaled(60))

        def run(command):
            done = subprocess.run(["bash", "-c", f"{names}\n{command}"], cwd=folder, env=environment,
                                  capture_output=True, text=True, timeout=scaled(60), check=False)
            assert done.stderr == "", command
            return done.stdout.splitlines()
        with feed:
            def has(text, path):
                return text in "".join(run(f'curl -s -H "Authorization: Bearer $TOKEN" $URL/api/{path}'))
            wait_until(lambda: has('"trades":[{', "instruments/AAPL"), what="a trade")
            wait_until(lambda: has('"symbol":"AAPL"', "state"), what="the row")
            yield run
        assert console.stop() == 0


def test_every_command_prints_what_the_page_shows(shell):
    for command, expected in examples()[3:]:
        if command.startswith("curl") and "tessel_halts_total" in command:
            # The counters are asked for once a second.
            wait_until(lambda command=command, expected=expected: shell(command) == expected, what=command)
        else:
            assert masked(shell(command)) == masked(expected), command


def test_table_of_options_is_that_of_the_help():
    text = subprocess.run([program("tessel-console"), "--help"], capture_output=True, text=True, check=True,
                          timeout=scaled(60)).stdout
    options = set(re.findall(r"^  (?:-h,)?(--[\w-]+)", text, re.M)) - {"--help", "--version"}
    assert options == set(re.findall(r"^\| `(--[\w-]+)", PAGE, re.M))


def test_table_of_members_is_that_of_the_state(tmp_path):
    with Feed(tmp_path, truth=False) as feed, Console(feed) as console:
        table = PAGE[PAGE.index("| member |"):PAGE.index("### GET /api/inst")]
        assert set(console.state()) == set(re.findall(r"^\| `(\w+)` \|", table, re.M))
        metrics = {re.sub(r"\{.*", "", name) for name in console.metrics()}
        for name in re.findall(r"`(tessel_\w+)`", PAGE):
            assert name in metrics or name == "tessel_latency_seconds", name
