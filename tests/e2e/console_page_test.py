"""The console's page in a browser, in front of a running feed: what one sees and what one can do."""

import contextlib
import os
import re
import signal
import socket
import threading
from pathlib import Path

import pytest
from selenium.webdriver.common.by import By

from browser import Console, Page, open_browser
from ctl import ctl
from feed import Feed, free_port, wait_until

SOURCE = Path(os.environ["TESSEL_SOURCE"])

# Names that are markup, and a label that would run if it became markup.
HOSTILE = ["<b>X</b>", '"><i>Q', "&lt;P&gt;", "'`${A}"]
LABEL = "<img/src=x/onerror=window.harmed=1>"


@pytest.fixture(name="driver", scope="module")
def open_driver(tmp_path_factory):
    driver = open_browser(tmp_path_factory.mktemp("browser"))
    yield driver
    driver.quit()


@pytest.fixture(name="feed")
def start_feed(tmp_path):
    with Feed(tmp_path, symbols="AAPL:190.00,MSFT:410.00,TSLA:250.00", interval_ms=20) as feed:
        yield feed


@pytest.fixture(name="page")
def open_page(driver, feed):
    """The page of a console in front of the feed. At the end its log has no error."""
    with Console(feed) as console:
        page = Page(driver, console).wait_live()
        page.console = console
        yield page
        assert page.errors() == []
        driver.get("about:blank")


def some(page, selector, *words):
    """True when an element's text holds all the words."""
    return any(all(word in text for word in words) for text in page.texts(selector))


def command_words():
    text = (SOURCE / "tools/common/control_commands.cpp").read_text()
    return set(re.findall(r'^    \{"(\w+)", ', text, re.M))


def test_PressHalt_RowTurnsAndTruthLogHasTheLine(page, feed):
    before = page.row("MSFT")
    assert (before["status"], before["letter"]) == ("Trading", "T")
    page.press("Halt MSFT")
    page.wait(lambda: page.row("MSFT")["status"] == "Halted", "the row to turn")
    assert page.row("MSFT")["letter"] == "H"
    assert page.row("MSFT")["color"] != before["color"]
    assert page.row("TSLA")["color"] == before["color"]
    page.wait_reply("halt MSFT", "ok halt MSFT")
    assert any(line.get("symbol") == "MSFT" and line.get("ah") == "H" and line.get("reason") == "T1"
               for line in feed.truth())
    page.wait(lambda: some(page, "#events tbody tr", "MSFT", "Halt (T1)"), "the event")
    page.find("#table-rows [aria-rowindex='3'] .c-symbol").click()
    page.wait(lambda: page.text("#chosen-title") == "MSFT", "the click to choose")
    page.wait(lambda: page.text("#chosen-status") == "Halted", "the status beside the name")
    page.wait(lambda: some(page, "#halts tbody tr", "Halt", "T1"), "the halt in the history")
    page.driver.refresh()
    page.wait_live()
    page.wait(lambda: some(page, "#events tbody tr", "MSFT", "Halt (T1)"), "the event in a new page")
    page.press("Resume MSFT")
    page.wait(lambda: page.row("MSFT")["status"] in ("Quotes only", "Trading"), "quotation")
    page.wait(lambda: page.row("MSFT")["status"] == "Trading", "trading")
    assert page.row("MSFT")["letter"] == "T"


def test_DropPackets_MarksAndCountersMove(page):
    assert page.number(("#faults", "Dropped")) == 0
    page.fill("Drop: How many", "3")
    page.press("Drop")
    page.wait_reply("drop 3", "ok drop 3")
    page.wait(lambda: page.number(("#faults", "Dropped")) == 3, "the counter of drops")
    page.wait(lambda: some(page, "#marks li", "drop 3"), "the mark of the command")
    page.wait(lambda: some(page, "#marks li", "dropped"), "the mark of the fault")
    page.wait(lambda: page.number(("#receiver", "Gaps")) >= 1, "the gap")
    # On a machine that is very busy a recovery may come too late.
    page.wait(lambda: page.number(("#receiver", "Recovered")) + page.number(("#receiver", "Lost")) > 0,
              "what became of it")
    assert page.number(("#receiver", "Lost")) == 0


def test_FeedKilled_PageSaysGoneAndComesBackByItself(page, feed):
    assert page.banner() == ""
    last = page.number(("#headline", "Next seq"))
    feed.stop(signal.SIGKILL)
    page.wait(lambda: "The feed is gone" in page.banner(), "the banner")
    assert page.text("#feed-state") == "Gone"
    feed.start()
    page.wait_live()
    page.wait(lambda: page.banner() == "", "the banner to go")
    page.wait(lambda: 0 < page.number(("#headline", "Next seq")) < last + 100_000, "numbers of the new run")
    page.press("Halt MSFT")
    page.wait(lambda: page.row("MSFT")["status"] == "Halted", "a row of the new run to turn")


def test_NewRunWithOtherInstruments_OneOfThemIsChosen(page, feed):
    page.wait(lambda: page.text("#chosen-title") == "AAPL" and page.texts("#tape tbody tr"), "a first choice")
    feed.control("halt MSFT")
    page.wait(lambda: some(page, "#events tbody tr", "MSFT"), "an event of the first run")
    feed.stop()
    feed.set_option("--symbols", "ZETA:20.00,YOTA:30.00")
    feed.start()
    page.wait(lambda: sorted(row["symbol"] for row in page.rows()) == ["YOTA", "ZETA"], "the new rows")
    page.wait(lambda: page.text("#chosen-title") == "YOTA" and page.texts("#bids tbody tr"), "another choice")
    assert not some(page, "#events tbody tr", "MSFT")


def test_ConsoleKilled_PageSaysGone(driver, feed):
    with Console(feed) as console:
        page = Page(driver, console).wait_live()
        console.child.kill()
        page.wait(lambda: "The feed is gone" in page.banner(), "the banner")
        assert "console itself does not answer" in page.banner()
        page.press("Halt AAPL")
        page.wait_reply("halt AAPL", "the console does not answer")
        driver.get("about:blank")


def test_ConsoleRestarted_PageAsksForTheNewAddress(driver, feed):
    with Console(feed) as console:
        page = Page(driver, console).wait_live()
    with Console(feed, http=console.http):
        page.wait(lambda: "open the address that it printed" in page.banner(), "the page to say so")
        assert "The feed is gone" in page.banner()
        driver.get("about:blank")


def test_HostileSymbolsAndLabels_ChangeNothing(driver, tmp_path):
    symbols = ",".join(f"{name}:50.00" for name in HOSTILE)
    with Feed(tmp_path, symbols=symbols, interval_ms=20) as feed, Console(feed) as console:
        page = Page(driver, console).wait_live()
        assert sorted(row["symbol"] for row in page.rows()) == sorted(HOSTILE)
        for symbol in HOSTILE:
            page.press(f"Halt {symbol}")
            page.wait_reply(f"halt {symbol}", f"ok halt {symbol}")
            page.wait(lambda name=symbol: page.row(name)["status"] == "Halted", "the row to turn")
            next(row for row in page.driver.find_elements(By.CSS_SELECTOR, "#table-rows tr")
                 if row.text.startswith(symbol)).click()
            page.wait(lambda name=symbol: page.text("#chosen-title") == name and page.text("#halts tbody"),
                      "the chosen one's details")
        page.find("input[aria-label='Mark: Label of the mark']").send_keys(LABEL)
        page.press("Mark")
        page.wait_reply(f"mark {LABEL}", f"ok mark {LABEL}")
        page.wait(lambda: some(page, "#marks li", LABEL), "the mark")
        strange = "main img, main b, main p p, main i:not(.bid):not(.ask), main script"
        assert page.run("return document.querySelectorAll(arguments[0]).length", strange) == 0
        assert page.run("return window.harmed === undefined")
        assert page.errors() == []
        driver.get("about:blank")


def test_EveryStreamTaken_PageSaysSoAndTriesAgain(driver, feed):
    with Console(feed) as console, contextlib.ExitStack() as others:
        streams = [others.enter_context(console.open("/api/events")) for _ in range(16)]
        page = Page(driver, console)
        page.wait(lambda: "No stream is free" in page.banner(), "the page to say so")
        assert "The feed is gone" not in page.banner()
        streams[0].close()
        page.wait_live()
        assert page.banner() == ""
        driver.get("about:blank")


def test_RecordedScript_IsPlayedByTesselctl(page, feed, driver, tmp_path):
    page.press("Record")
    page.press("Halt TSLA")
    page.wait_reply("halt TSLA", "ok halt TSLA")
    page.press("Statistics")
    page.wait(lambda: (page.reply() or [""])[0] == "stats", "the statistics")
    page.press("Resume TSLA")
    page.wait_reply("resume TSLA", "ok resume TSLA")
    page.fill("Duplicate: How many", "2")
    page.press("Duplicate")
    page.wait_reply("dup 2", "ok dup 2")
    # The feed is lenient with these, a script is not.
    for command in ("halt MSFT now", "rate x", "pause now", "resume MSFT # later"):
        page.find("#any-command").send_keys(command + "\n")
        page.wait_reply(command, f"ok {command}")
    page.press("Stop recording")
    page.press("LULD pause")
    page.wait_reply("luld_pause AAPL", "ok luld_pause AAPL")
    driver.execute_cdp_cmd("Browser.setDownloadBehavior",
                           {"behavior": "allow", "downloadPath": str(tmp_path)})
    page.press("Save as a file")
    path = tmp_path / "recorded.timeline"
    page.wait(path.exists, "the file")
    lines = path.read_text().splitlines()
    assert lines.pop() == "# not recorded: resume MSFT # later"
    assert lines.pop(4) == "# not recorded: rate x"
    commands = ["halt TSLA", "resume TSLA", "dup 2", "halt MSFT", "pause"]
    assert [line.split(" ", 1)[1] for line in lines] == commands
    moments = [float(re.fullmatch(r"\+(\d+\.\d{3})s", line.split()[0]).group(1)) for line in lines]
    assert moments == sorted(moments)
    played = ctl("script", path, feed=feed)
    assert (played.returncode, played.stderr) == (0, "")
    replies = [line.rpartition(": ")[2] for line in played.stdout.splitlines()]
    assert replies[:5] == [f"ok {command}" for command in commands]


def test_EveryCommand_HasAControlWhoseReplyIsShown(page, feed):
    page.fill("Mark: Label of the mark", "here")
    page.fill("Wipe out: Market center", "N")
    # Faults by every Nth packet are off, so that the channel of this test is like any other.
    for name in ("Drop every", "Duplicate every", "Reorder every"):
        page.fill(f"{name}: Every Nth packet", "0")
    for button in page.driver.find_elements(By.CSS_SELECTOR, "#chosen-buttons button, form.command button"):
        if button.text == "Stop the feed":
            continue
        shown = len(page.texts("#replies tbody tr"))
        button.click()
        page.wait(lambda count=shown: len(page.texts("#replies tbody tr")) > count, f"a reply: {button.text}")
        command, reply = page.reply()
        assert reply.startswith("ok"), (command, reply)
    page.press("Stop the feed")
    page.press("Keep it running")
    assert feed.running()
    page.press("Stop the feed")
    page.press("Stop it")
    page.wait_reply("stop", "ok stopping")
    assert feed.wait() == 0
    sent = {text.split()[0] for text in page.texts("#replies tbody tr td:nth-child(2)")}
    assert sent == command_words()


def test_RefusedCommand_IsShownAsFailed(page):
    field = page.find("#any-command")
    field.send_keys("halt NOPE\n")
    page.wait_reply("halt NOPE", "err unknown symbol")
    assert "failed" in page.run("return document.getElementById('reply-bar').className")


def test_Counters_AreAllThereWithAnExplanation(page):
    page.wait(lambda: len(page.texts("#counters tbody tr")) == 24, "the counters")
    assert all(len(text) > 10 for text in page.texts("#counters td:last-child"))
    wait_until(lambda: int(page.texts("#counters td.number")[0].replace(",", "")) > 0, what="quotes")
    assert page.texts("#counters tbody th")[0] == "quotes"


def test_ChosenInstrument_ShowsQuotesTradesAndCharts(page, feed):
    feed.control("cancel 3")
    feed.control("correct 3")
    page.wait(lambda: len(page.texts("#bids tbody tr")) >= 5, "the quotes")
    bids = [float(text) for text in page.texts("#bids tbody td:last-child") if text != "–"]
    asks = [float(text) for text in page.texts("#asks tbody td:first-child") if text != "–"]
    assert bids == sorted(bids, reverse=True) and asks == sorted(asks) and len(bids) >= 5
    page.wait(lambda: len(page.texts("#tape tbody tr")) > 5, "trades")
    for symbol in ("AAPL", "MSFT", "TSLA"):
        assert page.row(symbol)
    page.wait(lambda: any("canceled" in text or "error" in text or "corrected" in text
                          for text in tape_of_all(page)), "a canceled or corrected trade")
    for chart in ("price-chart", "spread-chart", "messages-chart", "packets-chart"):
        assert page.run("""const canvas = document.querySelector(`#${arguments[0]} canvas`);
            const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
            return data.some(each => each !== 0)""", chart), chart
    assert re.match(r"Bid \d", page.find("#price-chart").get_attribute("aria-label"))


def tape_of_all(page):
    """The trades of the chosen one; then the next instrument is chosen."""
    texts = page.texts("#tape tbody tr")
    rows = page.rows()
    chosen = next(index for index, row in enumerate(rows) if row["chosen"])
    page.driver.find_elements(By.CSS_SELECTOR, "#table-rows tr .c-symbol")[(chosen + 1) % len(rows)].click()
    page.wait(lambda: page.texts("#tape tbody tr"), "the tape of the next")
    return texts + page.texts("#tape tbody tr")


def answer_all(relay):
    """Answers every command with ok and the command, until the socket is closed."""
    relay.settimeout(0.2)
    while relay.fileno() >= 0:
        with contextlib.suppress(OSError):
            text, client = relay.recvfrom(2048)
            relay.sendto(b"ok " + text.strip(), client)


def test_CommandForTheRelay_GoesToTheRelay(driver, feed):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as relay:
        relay.bind(("127.0.0.1", free_port()))

        threading.Thread(target=answer_all, args=[relay], daemon=True).start()
        with Console(feed, "--relay", f"127.0.0.1:{relay.getsockname()[1]}") as console:
            page = Page(driver, console).wait_live()
            page.find("#relay-command").send_keys("line A drop=5%\n")
            page.wait_reply("relay: line A drop=5%", "ok line A drop=5%")
            driver.get("about:blank")


def test_ReadOnlyConsole_OffersNoCommands(driver, feed):
    with Console(feed, "--read-only") as console:
        page = Page(driver, console).wait_live()
        page.wait(lambda: page.text("#steer-about").startswith("This console is read-only"), "the note")
        assert not any(each.is_displayed() and each.text.startswith("Halt")
                       for each in page.driver.find_elements(By.CSS_SELECTOR, "button"))
        assert page.errors() == []
        driver.get("about:blank")
