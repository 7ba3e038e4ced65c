"""The pages: every link leads somewhere, and the README stays short."""

import os
import re
import subprocess
from pathlib import Path

import pytest

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
README_LINES_MAX = 180
COMMAND = ["git", "-c", "safe.directory=*", "-C", str(ROOT), "ls-files", "*.md"]
PAGES = sorted(subprocess.run(COMMAND, capture_output=True, text=True, check=True).stdout.split())


def without_code(text):
    return re.sub(r"```.*?```|`[^`\n]*`", "", text, flags=re.S)


def anchors_of(path):
    """The anchors that headings of a page make."""
    text = re.sub(r"```.*?```", "", path.read_text(), flags=re.S)
    headings = re.findall(r"^#+ (.*)$", text, re.M)
    named = set(re.findall(r'<a id="([^"]+)"></a>', text))
    return named | {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def broken_links(root, page):
    broken = []
    for target in re.findall(r"\]\(([^)\s]+)\)", without_code((root / page).read_text())):
        if re.match(r"[a-z]+:", target):
            continue
        name, _, anchor = target.partition("#")
        path = (root / page).parent / name if name else root / page
        if not path.exists() or anchor and anchor not in anchors_of(path):
            broken.append(target)
    return broken


@pytest.mark.parametrize("page", PAGES)
def test_every_link_leads_somewhere(page):
    assert broken_links(ROOT, page) == []


def test_planted_broken_links_are_found(tmp_path):
    (tmp_path / "a.md").write_text("# One thing\n[x](b.md) [y](#one-thing) [z](#two) [w](a.md#one-thing)\n")
    assert broken_links(tmp_path, "a.md") == ["b.md", "#two"]


def test_readme_fits_a_short_sitting():
    assert len((ROOT / "README.md").read_text().splitlines()) <= README_LINES_MAX
