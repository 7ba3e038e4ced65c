"""A SoupBinTCP client that is not ours, from npm, talks to the Snap-Shot service."""

import json
import subprocess

import pytest
from feed import Feed
from npm import NPM, install_packages
from soup import SoupClient, end_of_snapshot, letters
from time_scale import scaled

CLIENT_SECONDS = 120


@pytest.fixture(scope="module", autouse=True)
def library():
    """The pinned library, installed when it is not there yet."""
    install_packages()


def run_client(feed, user="NODE", session="", sequence="0", heartbeats=1):
    """What client.js saw."""
    words = ["node", "client.js", str(feed.snapshot_port), user, session, sequence, str(heartbeats)]
    done = subprocess.run(words, cwd=NPM, capture_output=True, text=True,
                          timeout=scaled(CLIENT_SECONDS), check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    seen = json.loads(done.stdout)
    seen["messages"] = [bytes.fromhex(message) for message in seen["messages"]]
    return seen


def without_stamps(message):
    """The message with the time stamps of its header, and of its body where it has one, blanked."""
    cut = bytearray(message)
    cut[5:21] = bytes(16)
    if letters(message)[:2] == "QD":
        cut[29:37] = bytes(8)
    if letters(message)[:2] == "AP":
        cut[41:49] = bytes(8)
    return bytes(cut)


def test_client_logs_in_gets_the_spin_stays_for_several_heartbeats_and_logs_out(tmp_path):
    with Feed(tmp_path, symbols="AAPL:190.00,MSFT:410.00") as feed:
        feed.wait_for_messages(200)
        feed.control("rate -1")
        next_seq = feed.next_seq()
        seen = run_client(feed, session=feed.session, sequence="1", heartbeats=4)
        assert seen["rejected"] is None
        assert seen["accepted"] == {"session": "UTPBENCH01", "sequenceNumber": 1}
        assert seen["heartbeats"] == 4
        assert seen["ended"]
        assert end_of_snapshot(seen["messages"][-1]) == next_seq - 1
        feed.wait_for_line("[tessel] Snap-Shot client logged out")

        # Message for message what a client of our own gets, the time of the spin aside.
        with SoupClient(feed.snapshot_port) as own:
            _, messages = own.log_in()
        assert [without_stamps(message) for message in messages] == \
               [without_stamps(message) for message in seen["messages"]]
        quotes = [letters(message) for message in messages if letters(message)[0] == "Q"]
        assert quotes == [f"QD{center} " for center in "DKNPQVZ"] * 2
        numbers = feed.stats()
        assert (numbers["snapshots"], numbers["snapshot_rejects"]) == (2, 0)
    assert feed.exit_code == 0


def test_client_is_rejected_for_another_sequence_another_session_and_a_second_login(tmp_path):
    with Feed(tmp_path) as feed:
        assert run_client(feed, sequence="2")["rejected"] == "S"
        assert run_client(feed, session="OTHERDAY01")["rejected"] == "S"
        with SoupClient(feed.snapshot_port) as first:
            first.log_in("FIRST")
            second = run_client(feed)
            assert second["rejected"] == "A"
            assert second["ended"]
            assert second["messages"] == []
        # The first is gone: now it is let in.
        feed.control("stats")
        seen = run_client(feed)
        assert seen["rejected"] is None
        assert letters(seen["messages"][-1]) == "ASE "
        assert feed.stats()["snapshot_rejects"] == 3
    assert feed.exit_code == 0
