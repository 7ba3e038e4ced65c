"""The pieces of code in docs/receiving.md, put together, are a receiver that works."""

import re
import subprocess
import sys
from pathlib import Path

from feed import Feed
from time_scale import scaled

PAGE = Path(__file__).resolve().parents[2] / "docs" / "receiving.md"


def test_the_pages_receiver_joins_late_and_recovers_what_is_dropped(tmp_path):
    code = "\n".join(re.findall(r"```python\n(.*?)```", PAGE.read_text(), re.S))
    feed = Feed(tmp_path, "--drop-every", "6", "--dup-every", "5", "--reorder-every", "7", interval_ms=4)
    for old, new in (("239.255.25.177", feed.group), ("25177", feed.port), ("25178", feed.retrans_port),
                     ("25179", feed.snapshot_port), ("10_000", 1000)):
        assert code.count(old) == 1, old
        code = code.replace(old, str(new))
    with feed:
        feed.wait_for_messages(500)
        result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                                timeout=scaled(120))
        stats = feed.stats()
        truth = {line["seq"]: line for line in feed.truth() if "mark" not in line}
    assert result.returncode == 0, result.stderr
    rows = [line.split() for line in result.stdout.splitlines()]
    numbers = [int(row[0]) for row in rows]
    assert numbers == list(range(numbers[0], numbers[0] + len(numbers)))
    assert len(numbers) >= 1000 and numbers[0] > 500
    assert stats["dropped"] > 0
    for row in rows:
        if row[1] in ("TM", "TN"):
            assert truth[int(row[0])]["trade"][2] == row[2]
