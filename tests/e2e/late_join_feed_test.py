"""A receiver that joins late has the state of one that received everything, whatever the market was in."""

import re

import pytest
from feed import Feed, Process, program, wait_until

BUSY = "band_every=1,trf_every=3,cancel_every=5,correct_every=7,odd_lot_every=3,asof_every=11"
FAULTS = ("--drop-every", "9", "--dup-every", "7", "--reorder-every", "5")

# What is done to the market before each of the joins, one after the other.
MOMENTS = {
    "as it trades": (),
    "one halted, one center wiped out": ("halt AAPL", "wipeout N"),
    "one paused with its collar, one under quotation only": ("luld_pause MSFT", "resume AAPL"),
    "all halted by the breaker": ("mwcb 3",),
    "all on their way back, without the ADF": ("resume AAPL", "resume MSFT", "resume CHEAP", "resume BRK",
                                               "resume CHEAP", "wipeout D"),
}


def receiver_of(feed, out, *args):
    """A receiver that has joined the group when this returns."""
    receiver = Process([program("tessel-listen"), *feed.receiver_args(), *feed.retrans_args(), "--out", out,
                        *args])
    receiver.wait_for_line("joined")
    return receiver


def sequence_of(line):
    return int(re.match(r'\{"seq":(\d+)', line).group(1))


@pytest.mark.parametrize("faults", [(), FAULTS],
                         ids=["every packet", "packets lost, duplicated and out of order"])
def test_five_late_joins_write_what_the_first_receiver_writes(tmp_path, faults):
    feed = Feed(tmp_path, *faults, scenario=BUSY, interval_ms=5,
                symbols="AAPL:190.00,MSFT:410.00,BRK:700.00,CHEAP:0.02,LONGNAMES:5")
    first_out = tmp_path / "first.jsonl"
    late = []
    with receiver_of(feed, first_out) as first, feed:
        try:
            for number, (name, commands) in enumerate(MOMENTS.items()):
                feed.wait_for_messages(feed.next_seq() + 300)
                for command in commands:
                    assert feed.control(command) == f"ok {command}"
                out = tmp_path / f"late{number}.jsonl"
                receiver = receiver_of(feed, out, *feed.snapshot_args(f"L{number}"))
                covered = int(re.search(r"up to (\d+)", receiver.wait_for_line("Snap-Shot of")).group(1))
                late.append((name, receiver, out, covered))
            for symbol in ("BRK", "AAPL", "MSFT", "LONGNAMES"):
                assert feed.control(f"resume {symbol}") == f"ok resume {symbol}"
            last = feed.wait_for_messages(feed.next_seq() + 1000)
            feed.fall_silent()
            assert first.stop() == 0, first.stderr
            assert [receiver.stop() for _, receiver, _, _ in late] == [0] * len(MOMENTS)
            stats = feed.stats()
            truth = [line for line in feed.truth_lines() if '"mark"' not in line]
        finally:
            for _, receiver, _, _ in late:
                receiver.kill()
    assert feed.exit_code == 0

    everything = first_out.read_text().splitlines()
    assert everything == truth
    for name, _, out, covered in late:
        expected = [line for line in everything if sequence_of(line) > covered]
        assert len(expected) > 300, name
        assert out.read_text().splitlines() == expected, name
    assert len({covered for _, _, _, covered in late}) == len(MOMENTS)
    assert stats["snapshots"] == len(MOMENTS)
    assert stats["halts"] >= 4 and stats["pauses"] == 1 and stats["wipeouts"] == 2 and stats["mwcb"] == 1
    assert last > 2500


def test_joiner_gets_the_state_of_a_market_that_stands_still(tmp_path):
    """Nothing but a round of commands follows the spin: their lines show what the joiner holds."""
    feed = Feed(tmp_path, scenario=BUSY, interval_ms=5, symbols="AAPL:190.00,MSFT:410.00")
    out = tmp_path / "late.jsonl"
    with feed:
        feed.wait_for_messages(500)
        assert feed.control("luld_pause AAPL") == "ok luld_pause AAPL"
        assert feed.control("rate -1") == "ok rate -1"
        still = feed.next_seq() - 1
        with receiver_of(feed, out, *feed.snapshot_args()) as receiver:
            covered = int(re.search(r"up to (\d+)", receiver.wait_for_line("Snap-Shot of")).group(1))
            assert covered == still
            for command in ("band MSFT", "wipeout Q", "resume AAPL", "halt MSFT"):
                assert feed.control(command) == f"ok {command}"
            wait_until(lambda: feed.next_seq() > still + 20, what="the events' messages")
            feed.fall_silent()
            assert receiver.stop() == 0, receiver.stderr
        truth = [line for line in feed.truth_lines() if sequence_of(line) > still]
    assert len(truth) > 15
    assert out.read_text().splitlines() == truth
