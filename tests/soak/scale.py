#!/usr/bin/env python3
"""Many channels as services of a booted systemd, received by one tessel-listen and judged: what they cost.

Started by scripts/scale. Ends with 0 when every channel agrees and nothing was lost."""

import argparse
import shutil
import sys
import tempfile
from pathlib import Path

sys.path[:0] = [str(Path(__file__).resolve().parents[1] / "python_support")]
from channel_services import run_services
from package import USER_PACKAGES, debian_root, needed_packages, run
from time_scale import time_scale

ROWS = [
    ("messages a second, all channels", "messages_a_second", "{:.0f}"),
    ("truth lines compared", "truth_lines", "{}"),
    ("seconds until all services answer", "start_seconds", "{:.1f}"),
    ("CPU of the feeds, cores", "feeds_cpu", "{:.3f}"),
    ("memory of the feeds, MiB", "feeds_mib", "{:.0f}"),
    ("CPU of the receiver, cores", "listener_cpu", "{:.3f}"),
    ("memory of the receiver, MiB", "listener_mib", "{:.0f}"),
    ("seconds of the judge", "judge_seconds", "{:.1f}"),
]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--channels", type=int, default=24)
    parser.add_argument("--symbols", type=int, default=2400)
    parser.add_argument("--interval-ms", type=int, default=100)
    options = parser.parse_args()
    tar, reason = debian_root("user", sorted({*USER_PACKAGES, *needed_packages()}))
    if tar is None:
        sys.exit(f"scale: {reason}")
    folder = Path(tempfile.mkdtemp(prefix="tessel-scale-"))
    try:
        root = folder / "root"
        root.mkdir()
        run("tar", "-xf", tar, "-C", root, seconds=120)
        result = run_services(root, folder, options.channels, options.symbols, options.seconds,
                              options.interval_ms, time_scale())
    finally:
        shutil.rmtree(folder)
    agree = result["verdicts"].count("AGREES")
    print(f"{agree} of {options.channels} channels with {options.symbols} symbols agree, "
          f"a tick every {options.interval_ms} ms")
    for text, name, form in ROWS:
        print(f"{text:36} {form.format(result[name])}")
    good = agree == options.channels and result["listen_status"] == 0 and result["services"] == ["success"]
    if not good:
        print(f"scale: not as it should be: {result}", file=sys.stderr)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
