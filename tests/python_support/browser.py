"""A browser for tests: Chromium without a window, steered by Selenium, and the console's page in it."""

import json
import re
import shutil
import subprocess
import urllib.request
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

from feed import Process, free_port, program, wait_until
from npm import NPM, install_packages
from time_scale import scaled

WIDTH, HEIGHT = 1280, 800


def open_browser(folder):
    """A driver with a fresh profile in the folder."""
    path = shutil.which("chromium") or shutil.which("chromium-browser")
    steered_by = shutil.which("chromedriver")
    assert path and steered_by, "chromium and chromium-driver are needed"
    options = webdriver.ChromeOptions()
    options.binary_location = path
    for word in ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--disable-dev-shm-usage", "--hide-scrollbars", f"--user-data-dir={folder / 'profile'}"]:
        options.add_argument(word)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service(steered_by), options=options)
    driver.set_page_load_timeout(scaled(60))
    driver.set_script_timeout(scaled(60))
    return driver


class Console:
    """One run of tessel-console for a feed: `address` is what it printed, with the token. `http` is where it
    serves, a free port by default."""

    def __init__(self, feed, *args, http=None):
        self.http = http or f"127.0.0.1:{free_port()}"
        command = [program("tessel-console"), "--feed", f"{feed.group}:{feed.port}", "--iface", feed.iface,
                   "--session", feed.session, *feed.retrans_args(),
                   "--snapshot", f"127.0.0.1:{feed.snapshot_port}", "--http", self.http,
                   "--control", f"127.0.0.1:{feed.control_port}", *args]
        self.child = Process(command, stdout=subprocess.PIPE)
        self.address = self.child.process.stdout.readline().decode().strip()
        assert self.address.startswith(f"http://{self.http}/?token="), (self.address, self.child.stderr)

    @property
    def token(self):
        return self.address.partition("token=")[2]

    def open(self, path):
        """An answer of the server, with the token; the caller closes it."""
        request = urllib.request.Request(f"http://{self.http}{path}",
                                         headers={"Authorization": f"Bearer {self.token}"})
        return urllib.request.urlopen(request, timeout=scaled(30))

    def get(self, path):
        with self.open(path) as answer:
            return json.load(answer)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.child.kill()
        self.child.process.stdout.close()


class Page:
    """The console's page in a browser."""

    def __init__(self, driver, console, width=WIDTH, height=HEIGHT, scheme="light"):
        self.driver = driver
        driver.get_log("browser")
        self.look(width, height, scheme)
        driver.get(console.address)

    def look(self, width=WIDTH, height=HEIGHT, scheme="light", reduced_motion="no-preference"):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": scheme},
            {"name": "prefers-reduced-motion", "value": reduced_motion}]})

    def run(self, script, *args):
        return self.driver.execute_script(script, *args)

    def find(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector):
        return self.run("return document.querySelector(arguments[0])?.textContent.trim()", selector)

    def texts(self, selector):
        return self.run("return [...document.querySelectorAll(arguments[0])].map(e => e.textContent.trim())",
                        selector)

    def number(self, figure):
        """The figure of that name in the panel of the feed: ("#faults", "Dropped")."""
        text = self.run("""return [...document.querySelector(arguments[0]).children]
            .find(each => each.firstChild.textContent === arguments[1])?.lastChild.textContent""", *figure)
        return int(text.replace(",", "")) if re.fullmatch(r"[\d,]+", text or "") else None

    def rows(self):
        """The rows of the table: symbol, status text, status letter, background color of the status."""
        return self.run("""return [...document.querySelectorAll('#table-rows tr')].map(row => ({
            symbol: row.cells[0].textContent, status: row.cells[1].textContent,
            letter: row.dataset.status, chosen: row.getAttribute('aria-selected') === 'true',
            color: getComputedStyle(row.cells[1]).backgroundColor}))""")

    def row(self, symbol):
        return next((row for row in self.rows() if row["symbol"] == symbol), None)

    def wait(self, condition, what):
        return wait_until(condition, what=what)

    def wait_live(self):
        self.wait(lambda: self.text("#feed-state") == "Live" and self.rows(), "the page to be live")
        return self

    def banner(self):
        """What the page says in large letters, "" when nothing."""
        return self.run("const b = document.getElementById('banner'); return b.hidden ? '' : b.innerText")

    def press(self, name):
        """Presses the button with that accessible name."""
        self.run("""const found = [...document.querySelectorAll('button')].filter(each =>
            (each.getAttribute('aria-label') || each.textContent) === arguments[0] && !each.disabled);
            if (found.length !== 1) throw new Error(`${found.length} buttons named ${arguments[0]}`);
            found[0].scrollIntoView({block: 'center'})""", name)
        for button in self.driver.find_elements(By.CSS_SELECTOR, "button"):
            if button.accessible_name == name:
                button.click()
                return
        raise AssertionError(f"no button is named {name}")

    def fill(self, name, value):
        """Types into the field with that accessible name."""
        field = self.find(f"input[aria-label='{name}']")
        field.clear()
        field.send_keys(value)

    def reply(self):
        return self.run("return [...document.querySelectorAll('#reply > *')].map(each => each.textContent)")

    def wait_reply(self, command, reply):
        self.wait(lambda: self.reply() == [command, reply], f"the reply {reply!r}, not {self.reply()}")

    def errors(self):
        """What the browser's log has of errors and warnings since the last call."""
        return [entry for entry in self.driver.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]

    def violations(self):
        """What axe-core finds, as "rule: element" texts."""
        install_packages()
        self.run((NPM / "node_modules/axe-core/axe.min.js").read_text() + "; window.axe = axe;")
        found = self.driver.execute_async_script("""const done = arguments[arguments.length - 1];
            axe.run(document, {resultTypes: ['violations']}).then(done, error => done(String(error)))""")
        assert isinstance(found, dict), found
        return [f"{each['id']}: {node['html'][:120]} {node.get('failureSummary', '')[:200]}"
                for each in found["violations"] for node in each["nodes"]]

    def sideways(self):
        """By how much the page is wider than the window."""
        return self.run("""const { scrollWidth, clientWidth } = document.querySelector('main');
            return Math.max(document.documentElement.scrollWidth - innerWidth, scrollWidth - clientWidth)""")

    def picture(self, path):
        assert self.driver.save_screenshot(str(path))
        return Path(path)
