"""Cases of a second for tests of what surrounds the catalog: campaigns, engines that run them, CI."""

from feed import program

CASE = """\
title = "Half a second of a quiet market"
proves = "The handler writes what it receives."
why = "Everything else rests on it."
page = "docs/receiving.md#receiving"

[feed]
symbols = ["AAPL:190.00", "MSFT:410.00"]
interval_ms = 20
{faults}
[run]
seconds = 0.5

[expect]
members = ["bid"]
"""


def quick_cases(folder):
    """A catalog of two cases, quick/plain and quick/loss, in this folder; for TESSEL_CASES."""
    (folder / "quick").mkdir(parents=True)
    (folder / "quick" / "plain.toml").write_text(CASE.format(faults=""))
    (folder / "quick" / "loss.toml").write_text(CASE.format(faults="\n[faults]\ndrop_every = 5\n"))
    return folder


def listen_command(recovers=True):
    """tessel-listen as a handler; one that asks for nothing that it misses when `recovers` is False."""
    words = [program("tessel-listen"), "--mcast", "{group}", "--port", "{port}", "--iface", "{iface}",
             "--session", "{session}", "--out", "{out}"]
    return " ".join(map(str, words + (["--retrans", "{retrans}"] if recovers else []))) + " {late}"
