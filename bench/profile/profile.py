#!/usr/bin/env python3
"""Reports where a tick's instructions go, by source file, with and without truth; can write it to a page.

    bench/profile/profile.py [--write bench/README.md]

Counted by callgrind over the program that the release build makes, built once more with line numbers: most
functions on the quote path are inlined into it, and only the lines distinguish them. The difference of a
long and a short run is taken, so that start-up is not in it.
"""

import argparse
import os
import pathlib
import re
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build" / "profile"
INSTRUMENTS, FEW_TICKS, MANY_TICKS = 200, 10, 40
SHOWN = 18  # files of each list


def build_program():
    """The release build with line numbers, which leave its instructions as they are."""
    configure = ["cmake", "--preset", "release", "-B", str(BUILD), "-DTESSEL_LINE_NUMBERS=ON"]
    subprocess.run(configure, cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", str(BUILD), "--target", "tick_profile"], check=True,
                   stdout=subprocess.DEVNULL)
    return BUILD / "tick_profile"


def place(file, function):
    """What a line of the listing is counted under: our file, or the library function."""
    ours = re.search(r"(?:^|/)src/(?:\./)?(\w+/\w+)\.(?:cpp|h)$", file)
    if ours:
        return "`%s`" % ours.group(1)
    if re.search(r"mmintrin\.h$|/c\+\+/", file):
        return "intrinsics and library templates"
    name = re.sub(r"\[[^\]]*\]|\(.*|'\d+|@.*", "", function).strip()
    return "`%s`" % name


def counted(program, ticks, truth):
    """Instructions by place, and messages."""
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "profile")
        command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out]
        command += [str(program), str(INSTRUMENTS), str(ticks)] + ([truth] if truth else [])
        done = subprocess.run(command, capture_output=True, text=True, check=True)
        annotate = ["callgrind_annotate", "--auto=no", "--threshold=100", out]
        listing = subprocess.run(annotate, capture_output=True, text=True, check=True)
    places = {}
    for line in listing.stdout.splitlines():
        found = re.match(r"\s*([\d,]+) \(\s*[\d.]+%\)\s+([^:]+):(.+)", line)
        if found:
            name = place(found.group(2), found.group(3))
            places[name] = places.get(name, 0) + int(found.group(1).replace(",", ""))
    return places, int(re.search(r"messages (\d+)", done.stdout).group(1))


def instructions_per_message(program, truth):
    few, few_messages = counted(program, FEW_TICKS, truth)
    many, many_messages = counted(program, MANY_TICKS, truth)
    messages = many_messages - few_messages
    return {name: (count - few.get(name, 0)) / messages for name, count in many.items()}


def table(program):
    lines = []
    for title, truth in (("without a truth log", None), ("with a truth log (to /dev/null)", "/dev/null")):
        places = instructions_per_message(program, truth)
        total = sum(places.values())
        lines += ["", "A tick %s: %.0f instructions a message." % (title, total), "",
                  "| place | instructions | share |",
                  "|---|---|---|"]
        ranked = sorted(places.items(), key=lambda entry: -entry[1])[:SHOWN]
        lines += ["| %s | %.0f | %.1f %% |" % (name, count, 100 * count / total) for name, count in ranked]
    return "\n".join(lines).strip()


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--write", help="put the table between the markers of this Markdown page")
    options = parser.parse_args()
    text = table(build_program())
    print(text)
    if options.write:
        page = pathlib.Path(options.write)
        before, rest = page.read_text().split("<!-- profile -->")
        after = rest.split("<!-- end of profile -->")[1]
        page.write_text(before + "<!-- profile -->\n" + text + "\n<!-- end of profile -->" + after)


if __name__ == "__main__":
    main()
