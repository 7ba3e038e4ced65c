#!/usr/bin/env python3
"""Tells where a tick's instructions go, by function, with and without truth, and writes the table to a page.

    bench/profile/profile.py [--build build/release] [--write docs/performance.md]

Counted by callgrind over the program that the release build makes; the difference of a long and a short run,
so that
start-up is not in it.
"""

import argparse
import os
import pathlib
import re
import subprocess
import tempfile

INSTRUMENTS, FEW_TICKS, MANY_TICKS = 200, 10, 40
SHOWN = 14  # functions of each list


def counted(program, ticks, truth):
    """Instructions by function, and messages."""
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "profile")
        command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out]
        command += [str(program), str(INSTRUMENTS), str(ticks)] + ([truth] if truth else [])
        done = subprocess.run(command, capture_output=True, text=True, check=True)
        annotate = ["callgrind_annotate", "--threshold=100", out]
        listing = subprocess.run(annotate, capture_output=True, text=True, check=True)
    functions = {}
    for line in listing.stdout.splitlines():
        found = re.match(r"\s*([\d,]+) \(\s*[\d.]+%\)\s+[^:]+:(.+)", line)
        if found:
            name = re.sub(r"\[[^\]]*\]|\(.*|'\d+", "", found.group(2).replace("(anonymous namespace)::", ""))
            name = name.replace("tessel::", "").strip()
            functions[name] = functions.get(name, 0) + int(found.group(1).replace(",", ""))
    return functions, int(re.search(r"messages (\d+)", done.stdout).group(1))


def instructions_per_message(program, truth):
    few, few_messages = counted(program, FEW_TICKS, truth)
    many, many_messages = counted(program, MANY_TICKS, truth)
    messages = many_messages - few_messages
    return {name: (count - few.get(name, 0)) / messages for name, count in many.items()}


def table(program):
    lines = []
    for title, truth in (("without a truth log", None), ("with a truth log (to /dev/null)", "/dev/null")):
        functions = instructions_per_message(program, truth)
        total = sum(functions.values())
        lines += ["", "A tick %s: %.0f instructions a message." % (title, total), "",
                  "| function | instructions | share |",
                  "|---|---|---|"]
        ranked = sorted(functions.items(), key=lambda entry: -entry[1])[:SHOWN]
        lines += ["| `%s` | %.0f | %.1f %% |" % (name, count, 100 * count / total) for name, count in ranked]
    return "\n".join(lines).strip()


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release", type=pathlib.Path)
    parser.add_argument("--write", help="put the table between the markers of this Markdown page")
    options = parser.parse_args()
    text = table(options.build / "tick_profile")
    print(text)
    if options.write:
        page = pathlib.Path(options.write)
        before, rest = page.read_text().split("<!-- profile -->")
        after = rest.split("<!-- end of profile -->")[1]
        page.write_text(before + "<!-- profile -->\n" + text + "\n<!-- end of profile -->" + after)


if __name__ == "__main__":
    main()
