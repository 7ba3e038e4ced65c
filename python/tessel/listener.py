"""The reference receiver as a fixture."""

from __future__ import annotations

from pathlib import Path
from types import TracebackType
from typing import Optional, Sequence, Type

from tessel.feed import START_SECONDS, Feed
from tessel.process import Process, StartError, program


class Listener:
    """tessel-listen beside a feed, joined when the constructor returns.

    output      the path of the lines it writes, in the feed's folder
    late        begin with a snapshot, as a receiver that starts late
    options     further command-line options
    """

    _started = 0

    def __init__(self, feed: Feed, late: bool = False, options: Sequence[object] = ()) -> None:
        Listener._started += 1
        self.output: Path = feed.folder / f"listener-{Listener._started}.jsonl"
        words = [program("tessel-listen"), "--mcast", feed.group, "--port", feed.port, "--iface", feed.iface,
                 "--session", feed.session, "--retrans", feed.retrans, "--out", self.output]
        if late:
            words += ["--snapshot", feed.snapshot, "--user", "LATE"]
        self.process = Process([str(word) for word in [*words, *options]])
        try:
            self.process.wait_for_line(r"^tessel-listen: joined ", START_SECONDS)
        except StartError:
            self.process.stop()
            raise

    def close(self) -> int:
        """Stops the receiver and returns its exit status: 0 when nothing is missing."""
        return self.process.stop()

    def __enter__(self) -> "Listener":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()
