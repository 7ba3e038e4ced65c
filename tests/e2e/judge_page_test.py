"""The judge's HTML page, opened in a browser: what it says and what one sees."""

import re
import shutil
import subprocess

import pytest

from feed import program
from png import count_color, read_png

# The page's colors by scheme, as its style has them.
LIGHT = {"agrees": "#17703f", "differs": "#b3261e", "missing": "#d9480f", "mismatched": "#6741d9",
         "unexpected": "#1971c2", "card": "#ffffff"}
DARK = {"agrees": "#1f7a48", "differs": "#b73a32", "missing": "#ff8c42", "mismatched": "#9f85ff",
        "unexpected": "#5aa9f0", "card": "#1b2229"}

WIDTH, HEIGHT = 1000, 640


def line(seq, status="T"):
    return f'{{"seq":{seq},"symbol":"AAPL","nbbo":[190.0100,300,190.0300,200],"status":"{status}"}}\n'


def browser():
    path = shutil.which("chromium") or shutil.which("chromium-browser")
    assert path, "chromium is not installed"
    return path


def browse(tmp_path, page, *args):
    """Runs the browser over the page with a fresh profile and returns what it prints."""
    profile = tmp_path / f"profile{len(list(tmp_path.glob('profile*')))}"
    profile.mkdir()
    command = [browser(), "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
               "--disable-background-networking", "--disable-component-update", "--disable-sync",
               "--hide-scrollbars",
               "--disable-dev-shm-usage", f"--user-data-dir={profile}", f"--window-size={WIDTH},{HEIGHT}",
               *args,
               page.as_uri()]
    done = subprocess.run(command, capture_output=True, text=True, timeout=180, check=False, cwd=tmp_path)
    assert done.returncode == 0, done.stderr
    return done.stdout


def look(tmp_path, page, scheme="light"):
    """A picture of the page in the light or the dark scheme, and its elements as text."""
    path = tmp_path / f"{scheme}.png"
    dom = browse(tmp_path, page, f"--screenshot={path}", "--dump-dom",
                 f"--blink-settings=preferredColorScheme={0 if scheme == 'dark' else 1}")
    return read_png(path), dom


def make_page(tmp_path, output, truth=None):
    (tmp_path / "truth.jsonl").write_text(truth or "".join(line(seq) for seq in range(1, 601)))
    (tmp_path / "output.jsonl").write_text(output)
    page = tmp_path / "page.html"
    done = subprocess.run([program("tessel-judge"), tmp_path / "truth.jsonl", tmp_path / "output.jsonl",
                           "--report",
                           page], capture_output=True, text=True, timeout=60, check=False)
    return done.returncode, page


def shown_text(dom):
    """The words of a page without its tags and style."""
    text = re.sub(r"<style>.*?</style>", "", dom, flags=re.S)
    return re.sub(r"\s+", " ", re.sub(r"<[^>]+>", " ", text)).strip()


def colors_seen(picture, scheme):
    """The names of the colors that take up more than a few points."""
    return {name for name, color in scheme.items() if count_color(picture, color) > 20}


@pytest.fixture(scope="module")
def agreement(tmp_path_factory):
    folder = tmp_path_factory.mktemp("agreement")
    status, page = make_page(folder, "".join(line(seq) for seq in range(1, 601)))
    assert status == 0
    return {scheme: look(folder, page, scheme) for scheme in ("light", "dark")}


@pytest.fixture(scope="module")
def difference(tmp_path_factory):
    """Sixty lines missing in a row, thirty mismatched, one twenty times too often."""
    folder = tmp_path_factory.mktemp("difference")
    output = [line(seq, "H" if 301 <= seq <= 330 else "T") for seq in range(1, 601) if not 101 <= seq <= 160]
    status, page = make_page(folder, "".join(output) + line(500) * 20)
    assert status == 1
    return {scheme: look(folder, page, scheme) for scheme in ("light", "dark")}


@pytest.mark.parametrize("scheme, colors", [("light", LIGHT), ("dark", DARK)])
def test_page_of_an_agreement_is_green_without_bars(agreement, scheme, colors):
    picture, _ = agreement[scheme]
    assert picture[:2] == (WIDTH, HEIGHT)
    assert colors_seen(picture, colors) == {"agrees", "card"}
    # The verdict is a banner, not a letter: it covers a good part of the page's top.
    assert count_color(picture, colors["agrees"]) > WIDTH * 60


@pytest.mark.parametrize("scheme, colors", [("light", LIGHT), ("dark", DARK)])
def test_page_of_differences_is_red_with_bars_of_each_kind(difference, scheme, colors):
    picture, _ = difference[scheme]
    assert colors_seen(picture, colors) == {"differs", "missing", "mismatched", "unexpected", "card"}
    assert count_color(picture, colors["differs"]) > WIDTH * 60
    # Sixty missing lines make more of a bar than thirty mismatched ones, those more than twenty unexpected.
    areas = [count_color(picture, colors[name]) for name in ("missing", "mismatched", "unexpected")]
    assert areas[0] > areas[1] > areas[2] > 500, areas


def test_only_what_is_missing_has_bars_when_nothing_else_differs(tmp_path):
    status, page = make_page(tmp_path, "".join(line(seq) for seq in range(1, 601) if seq != 77))
    assert status == 1
    picture, _ = look(tmp_path, page)
    assert colors_seen(picture, LIGHT) == {"differs", "missing", "card"}


def test_page_tells_verdict_figures_axis_and_differences(difference):
    dom = difference["light"][1]
    text = shown_text(dom)
    assert ("Differs Of 600 truth lines 510 are matched, 30 mismatched and 60 missing; unexpected lines in "
            "OUTPUT: 20.") in text
    for words in ("truth lines 600", "output lines 560", "matched 510", "mismatched 30",
                  "missing 60 longest gap 60: 101 to 160", "unexpected 20 20 repeated", "sequence number",
                  "missing (60) mismatched (30) unexpected (20)", "missing, 60 lines", "mismatched in status",
                  'truth "T"', 'output "H"', "nbbo 540 0", "status 540 30"):
        assert words in text, f"{words!r} is not in: {text}"
    # Ten numbers a bar.
    bars = [dom.count(f'<rect class="{name}"') for name in ("missing", "mismatched", "unexpected")]
    assert bars == [6, 3, 1]


def test_page_of_an_agreement_says_so(agreement):
    dom = agreement["light"][1]
    text = shown_text(dom)
    assert "Agrees All 600 truth lines have their line in OUTPUT, and every member given agrees." in text
    assert "nothing missing, mismatched or unexpected" in text
    assert "<rect" not in dom and "Differences" not in text


def test_several_runs_have_a_chart_each(tmp_path):
    truth = "".join(line(seq) for seq in range(6, 300)) + "".join(line(seq) for seq in range(6, 500))
    _, page = make_page(tmp_path, truth.replace(line(100), "", 1), truth)
    dom = browse(tmp_path, page, "--dump-dom")
    assert dom.count("<svg") == 2
    assert "The truth log holds 2, the output 2." in shown_text(dom)


def test_nothing_from_the_files_becomes_part_of_the_page(tmp_path):
    evil = '<script>document.title="owned"</script><img src=x onerror=alert(1)>'
    text = '{"seq":%d,"symbol":"%s"}\n'
    _, page = make_page(tmp_path, text % (1, evil.replace('"', '\\"')) + text % (2, "&lt;b&gt;"),
                        text % (1, "</table><h1>x</h1>") + text % (2, "<b>"))
    dom = browse(tmp_path, page, "--dump-dom")
    assert "<script" not in dom and "<img" not in dom and dom.count("<h1>") == 1
    assert "<title>Differs: " in dom
    assert "&amp;lt;b&amp;gt;" in dom


def test_page_needs_nothing_from_anywhere(tmp_path):
    _, page = make_page(tmp_path, line(1))
    text = page.read_text()
    assert not re.search(r"https?:|//|@import|url\(|<link|<script|src=", text)
