"""The console's page in a browser: thousands of rows, keyboard, themes, widths, accessibility, pictures.

With TESSEL_PICTURES=FOLDER the pictures of docs/console.md are written there.
"""

import json
import os
from pathlib import Path

import pytest
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys

from browser import HEIGHT, Console, Page, open_browser
from feed import Feed, wait_until
from npm import NPM, install_packages
from png import read_png, write_small_png

SOURCE = Path(os.environ["TESSEL_SOURCE"])
SYMBOLS = 3000
WIDTHS = (360, 768, 1280, 1920, 2560)


@pytest.fixture(name="site", scope="module")
def start_site(tmp_path_factory):
    """A browser in front of a console in front of a feed with thousands of instruments."""
    folder = tmp_path_factory.mktemp("site")
    symbols = ",".join(f"S{number:04}:{10 + number % 400}.00" for number in range(SYMBOLS))
    driver = open_browser(folder)
    with Feed(folder, symbols=symbols, interval_ms=200, truth=False) as feed, Console(feed) as console:
        yield driver, console, feed
    driver.quit()


@pytest.fixture(name="page")
def open_page(site):
    driver, console, _ = site
    page = Page(driver, console).wait_live()
    yield page
    assert page.errors() == []


def press_keys(page, *keys):
    ActionChains(page.driver).send_keys(*keys).perform()


def focused(page):
    """The name of what has the focus."""
    return page.driver.switch_to.active_element.accessible_name


def press_until(page, key, name, most=60):
    """Presses a key until what has that name has the focus; returns how often."""
    for times in range(most):
        if focused(page) == name:
            return times
        press_keys(page, key)
    raise AssertionError(f"{name} was not reached; the focus is at {focused(page)}")


def chosen_row(page):
    return next((row for row in page.rows() if row["chosen"]), None)


def test_ThousandsOfInstruments_OnlyRowsInSightAreSent(page):
    assert page.text("#instruments-total") == f"{SYMBOLS:,} instruments"
    assert len(page.rows()) < 60
    page.run("document.getElementById('table-scroller').scrollTop = 1500 * 28")
    page.wait(lambda: page.row("S1505"), "rows in the middle")
    assert len(page.rows()) < 60 and page.row("S0000") is None
    page.run("document.getElementById('table-scroller').scrollTop = 1e9")
    page.wait(lambda: page.row(f"S{SYMBOLS - 1}"), "the last row")


def test_SearchAndSort_NarrowAndOrderTheRows(page):
    page.find("#search").send_keys("s004")
    page.wait(lambda: page.text("#instruments-total") == "10 instruments", "the search")
    found = [f"S004{digit}" for digit in range(10)]
    page.wait(lambda: [row["symbol"] for row in page.rows()] == found, "rows")
    page.press("Bid")
    page.wait(lambda: page.rows()[0]["symbol"] == "S0040", "lowest bid first")
    page.press("Bid")
    page.wait(lambda: page.rows()[0]["symbol"] == "S0049", "highest bid first")
    assert page.find("th.c-bid").get_attribute("aria-sort") == "descending"
    bids = [float(text) for text in page.texts("#table-rows .c-bid")]
    assert bids == sorted(bids, reverse=True)
    page.find("#search").send_keys("nothing")
    page.wait(lambda: page.text("#instruments-total") == "0 instruments" and not page.rows(), "no row")


def test_PricesChange_CellsFlash(page):
    page.wait(lambda: page.run("return document.querySelectorAll('.rise0, .rise1, .fall0, .fall1').length"),
              "a flash")
    page.look(reduced_motion="reduce")
    assert page.run("""return [...document.querySelectorAll('.rise0, .rise1, .fall0, .fall1')]
        .every(each => getComputedStyle(each).animationName === 'none')""")
    page.look()


def test_KeyboardAlone_ReachesEverything(page):
    press_keys(page, Keys.TAB)
    assert focused(page) == "Skip to the instruments"
    assert page.run("return document.activeElement.getBoundingClientRect().top >= 0")
    press_keys(page, Keys.ENTER)
    press_keys(page, Keys.TAB)
    press_until(page, Keys.TAB, "Instruments")
    assert page.run("return document.activeElement.id") == "table"
    page.wait(lambda: chosen_row(page)["symbol"] == "S0000", "the first row to be chosen")
    for keys, symbol in [([Keys.ARROW_DOWN] * 3, "S0003"), ([Keys.ARROW_UP], "S0002"),
                         ([Keys.END], f"S{SYMBOLS - 1}"), ([Keys.HOME], "S0000"),
                         ([Keys.ARROW_DOWN], "S0001")]:
        press_keys(page, *keys)
        page.wait(lambda name=symbol: (chosen_row(page) or {}).get("symbol") == name, f"{symbol} chosen")
        assert page.text("#chosen-title") == symbol
        active = page.find("#table").get_attribute("aria-activedescendant")
        assert page.run("return document.getElementById(arguments[0]).cells[0].textContent", active) == symbol
    press_until(page, Keys.TAB, "Halt S0001")
    outline = page.run("return getComputedStyle(document.activeElement).outlineStyle")
    assert outline == "solid"
    press_keys(page, Keys.ENTER)
    page.wait_reply("halt S0001", "ok halt S0001")
    page.wait(lambda: page.row("S0001")["status"] == "Halted", "the row to turn")
    press_until(page, Keys.TAB, "Resume S0001", most=3)
    press_until(page, Keys.TAB, "Duplicate: How many")
    press_keys(page, "2", Keys.ENTER)
    page.wait(lambda: page.reply()[1].startswith("ok dup"), "the reply")


def test_Theme_FollowsTheSystemAndTheSwitch(page):
    def light():
        return page.run("""const color = getComputedStyle(document.body).backgroundColor.match(/\\d+/g);
            return color.map(Number).reduce((sum, each) => sum + each) > 380""")
    assert light()
    page.look(scheme="dark")
    assert not light()
    page.run("""const theme = document.getElementById('theme'); theme.value = 'light';
        theme.dispatchEvent(new Event('change'))""")
    assert light()
    page.driver.refresh()
    page.wait_live()
    assert light()
    page.run("""const theme = document.getElementById('theme'); theme.value = 'auto';
        theme.dispatchEvent(new Event('change'))""")
    assert not light()


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_AxeCore_FindsNoViolation(page, site, scheme):
    feed = site[2]
    page.look(scheme=scheme)
    # Flashes pass through colors between two: the resting page is what is looked at.
    page.look(scheme=scheme, reduced_motion="reduce")
    for command in ("halt S0002", "luld_pause S0003", "halt S0004", "resume S0004", "drop 1", "mark here"):
        feed.control(command)
    page.press("Halt S0000")
    page.wait(lambda: page.row("S0003")["status"] == "Paused" and page.row("S0000")["status"] == "Halted",
              "rows to turn")
    for width in (1280, 360):
        page.look(width, 800, scheme, "reduce")
        assert page.violations() == []


def test_FeedGone_AxeCoreFindsNoViolation(driver_page_of_a_stopped_feed):
    page = driver_page_of_a_stopped_feed
    for scheme in ("light", "dark"):
        page.look(scheme=scheme, reduced_motion="reduce")
        assert page.violations() == []


@pytest.fixture(name="driver_page_of_a_stopped_feed")
def open_stopped(site, tmp_path):
    with Feed(tmp_path) as feed, Console(feed) as console:
        page = Page(site[0], console).wait_live()
        feed.stop()
        page.wait(lambda: "The feed is gone" in page.banner(), "the banner")
        yield page
        page.driver.get("about:blank")


@pytest.mark.parametrize("width", WIDTHS)
def test_Width_NothingGoesBeyondTheWindow(page, width):
    page.look(width, HEIGHT)
    page.wait(lambda: page.run("return window.innerWidth") == width, "the width")
    page.wait(lambda: page.run("""return [...document.querySelectorAll('.chart')].every(each =>
        each.querySelector('canvas').getBoundingClientRect().width <= each.clientWidth + 1)"""), "the charts")
    assert page.sideways() <= 0
    assert page.run("""return [...document.querySelectorAll('button, input, select')].every(one => {
        const box = one.getBoundingClientRect();
        return box.right <= innerWidth || one.closest('.scroller') })""")
    # The table shows what is needed most, in rows that have room.
    assert 5 < len(page.rows()) < 60
    for cell in (".c-symbol", ".c-bid", ".c-act button"):
        assert page.find(f"#table-rows {cell}").is_displayed()


def test_PageOffline_AsksNobodyElse(page, site):
    names = page.run("return performance.getEntriesByType('resource').map(each => each.name)")
    assert names and all(name.startswith(f"http://{site[1].http}/") for name in names)
    for path in (SOURCE / "tools/console/page").iterdir():
        text = path.read_text()
        assert "innerHTML" not in text and "eval(" not in text, path
        if path.suffix == ".html":
            assert "<style" not in text and " style=" not in text and " onclick=" not in text


@pytest.mark.parametrize("ours,theirs", [("uplot.js", "uPlot.iife.min.js"), ("uplot.css", "uPlot.min.css")])
def test_BundledLibrary_IsThePinnedOne(ours, theirs):
    install_packages()
    package = NPM / "node_modules/uplot"
    text = (SOURCE / "tools/console/page" / ours).read_text()
    comment, _, rest = text.partition("*/\n")
    assert rest == (package / "dist" / theirs).read_text()
    assert json.loads((package / "package.json").read_text())["version"] in comment
    assert (package / "LICENSE").read_text().strip() in comment


def test_Pictures_AreTaken(site, tmp_path):
    asked_for = os.environ.get("TESSEL_PICTURES")
    folder = Path(asked_for or tmp_path)
    names = "AAPL MSFT TSLA ABCD BOLT CEDA DELF EAST FIRN GALE HIVE IRIS JADE KELP LIME MOSS NOVA OPAL PINE"
    symbols = ",".join(f"{name}:{30 + 17 * place % 400}.00" for place, name in enumerate(names.split()))
    with Feed(tmp_path, symbols=symbols, interval_ms=50, truth=False) as feed, Console(feed) as console:
        page = Page(site[0], console, 1280, 860, "light").wait_live()
        draw_lines(page, 110 if asked_for else 0)
        feed.control("luld_pause AAPL")
        page.press("Halt BOLT")
        page.wait_reply("halt BOLT", "ok halt BOLT")
        page.wait(lambda: page.row("AAPL")["status"] == "Paused", "the pause")
        feed.control("resume AAPL")
        feed.control("drop 4")
        page.wait(lambda: page.row("AAPL")["status"] == "Trading", "the end of the pause")
        page.wait(lambda: len(page.texts("#tape tbody tr")) > 12 and some_mark(page), "trades and marks")
        draw_lines(page, 25 if asked_for else 0)
        feed.control("luld_pause IRIS")
        page.wait(lambda: page.row("IRIS")["status"] == "Paused", "the second pause")
        taken = {"console": page.picture(tmp_path / "1.png")}
        page.look(1280, 860, "dark")
        page.run("document.getElementById('feed').scrollIntoView()")
        taken["console-feed"] = page.picture(tmp_path / "2.png")
        page.look(360, 720, "dark")
        page.run("document.querySelector('main').scrollTo(0, 0)")
        taken["console-narrow"] = page.picture(tmp_path / "3.png")
        # Without a wish for them the smallest will do: the others take seconds.
        for name, path in taken.items() if asked_for else [("console-narrow", taken["console-narrow"])]:
            write_small_png(folder / f"{name}.png", read_png(path))
            assert 10_000 < (folder / f"{name}.png").stat().st_size < 100_000
        site[0].get("about:blank")


def some_mark(page):
    return any("dropped" in text for text in page.texts("#marks li"))


def draw_lines(page, seconds):
    """Waits until the charts have lines of that many seconds."""
    start = page.run("return performance.now()")
    wait_until(lambda: page.run("return performance.now()") - start >= 1000 * seconds, 60 + 2 * seconds,
               "the charts")
