"""A feed handler with its tests: against a feed of their own, and the catalog of cases.

    HANDLER=./handler.py python3 -m pytest --tessel-artifacts artifacts
"""

import os
import shlex
import subprocess
import time

import pytest
import tessel

HANDLER = os.environ["HANDLER"]
ARGUMENTS = ("--group {group} --port {port} --iface {iface} --session {session} --retrans {retrans} "
             "--snapshot {snapshot} --out {out}")


@pytest.fixture(name="run_handler")
def run_handler_fixture():
    """run_handler(feed) starts the handler beside a feed; it ends with the test."""
    started = []

    def start(feed):
        output = feed.folder / "handler.jsonl"
        words = shlex.split(HANDLER) + ARGUMENTS.format(
            group=feed.group, port=feed.port, iface=feed.iface, session=feed.session, retrans=feed.retrans,
            snapshot=feed.snapshot, out=output).split()
        started.append(subprocess.Popen(words))
        wait_for(output.exists)
        return output
    yield start
    for process in started:
        process.terminate()
        process.wait()


def wait_for(condition, seconds=30):
    end = time.monotonic() + seconds
    while not condition() and time.monotonic() < end:
        time.sleep(0.02)


def test_lost_packets_are_recovered(tessel_feed, run_handler):
    feed = tessel_feed(symbols="AAPL:190.00", interval_ms=20, options=["--drop-every", 5])
    output = run_handler(feed)
    wait_for(lambda: output.exists() and len(output.read_text().splitlines()) > 50)
    last = feed.silence()
    wait_for(lambda: f'"seq":{last},' in output.read_text(), 5)
    verdict = tessel.judge(feed.truth, output, late=True)
    assert verdict.agrees, verdict.text


def test_the_catalog():
    certificate = tessel.certify(f"{HANDLER} {ARGUMENTS} {{late}}", late_arg="--late",
                                 only=["loss/one_packet", "join/quiet"])
    assert certificate.passed, certificate.text
