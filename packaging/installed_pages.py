#!/usr/bin/env python3
"""Makes the pages of an installation from those of the source tree: installed_pages.py SOURCE OUT

README.md, SECURITY.md, CHANGELOG.md and docs/ with its pictures keep their places beside one another, so that
links between them hold. `build/release/tessel` and `scripts/run` become `tessel`, and so on. What is about
the tree itself is between two comments,

    <!-- in the source tree -->
    ...
    <!-- installed: what is written in its place -->

A page that still names files of the tree gets a line under its title that says so.
"""

import re
import shutil
import sys
from pathlib import Path

TREE_ONLY = re.compile(r"<!-- in the source tree -->\n.*?<!-- installed:\s?(.*?) ?-->\n", re.DOTALL)
REPLACEMENTS = [
    (r"\bbuild/release/(tessel[\w-]*)", r"\1"),
    (r"\$PWD/build/release\b", "/usr/bin"),
    (r"\bscripts/run\b", "tessel"),
    (r"\btools/wireshark/tessel\.lua", "/usr/share/tessel/tessel.lua"),
    (r"(?<![/\w])examples/", "/usr/share/doc/tessel/examples/"),
]
# What only the source tree has.
OF_THE_TREE = re.compile(r"\.ci/run|(?<![\w/.])(?:scripts|tests|src|bench)/\w+")
NOTE = ("\n*What begins with `scripts/`, `src/`, `tests/` or `bench/` is in the source tree, not in the "
        "package.*\n")


def installed(text):
    text = TREE_ONLY.sub(lambda found: found.group(1) + "\n" if found.group(1) else "", text)
    for pattern, replacement in REPLACEMENTS:
        text = re.sub(pattern, replacement, text)
    if OF_THE_TREE.search(text):
        text = text.replace("\n", "\n" + NOTE, 1)
    return text


def main():
    source, out = Path(sys.argv[1]), Path(sys.argv[2])
    for path in [*source.glob("*.md"), *source.glob("docs/*.md")]:
        name = path.relative_to(source)
        if name.name != "CONTRIBUTING.md":
            (out / name).parent.mkdir(parents=True, exist_ok=True)
            (out / name).write_text(installed(path.read_text()))
    for path in source.glob("docs/images/*.png"):
        (out / "docs/images").mkdir(exist_ok=True)
        shutil.copyfile(path, out / path.relative_to(source))


if __name__ == "__main__":
    main()
