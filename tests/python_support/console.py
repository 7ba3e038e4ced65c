"""Starts tessel-console for a test and speaks HTTP with it.

    with Feed(tmp_path) as feed, Console(feed) as console:
        console.wait_for(lambda state: state["total"] == 3)
        assert console.command("halt AAPL") == (200, {"ok": True, "reply": "ok halt AAPL"})
        with console.stream() as stream:
            name, data = stream.next_event()
"""

import http.client
import json
import re
import select
import signal
import socket
import subprocess

from feed import STOP_SECONDS, Process, program, wait_until
from time_scale import scaled

# For one request.
SECONDS = 60


class Stream:
    """A stream of events, read as it comes."""

    def __init__(self, connection, response):
        self._connection = connection
        self._response = response

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._response.close()
        self._connection.close()

    def next_event(self):
        """The next event's name and its data as an object; (None, None) at the end of the stream."""
        name = data = None
        while True:
            line = self._response.readline()
            if not line:
                return None, None
            line = line.decode().rstrip("\n")
            if line.startswith("event: "):
                name = line[len("event: "):]
            elif line.startswith("data: "):
                data = json.loads(line[len("data: "):])
            elif not line:
                return name, data

    def wait_for(self, name, condition=lambda data: True, events=400):
        """The data of the first such event; fails when it is not among the next ones."""
        for _ in range(events):
            each, data = self.next_event()
            assert each is not None, "the stream has ended"
            if each == name and condition(data):
                return data
        raise AssertionError(f"no event {name} among {events}")


class Console:
    """One run of tessel-console beside a feed, on a free port of 127.0.0.1."""

    def __init__(self, feed, *args, retrans=True, snapshot=True, http="127.0.0.1:0", control=None):
        words = [program("tessel-console"), "--feed", f"{feed.group}:{feed.port}", "--iface", feed.iface,
                 "--session", feed.session, "--control", control or f"127.0.0.1:{feed.control_port}",
                 "--http", http]
        if retrans:
            words += feed.retrans_args()
        if snapshot:
            words += ["--snapshot", f"127.0.0.1:{feed.snapshot_port}"]
        self.words = [*words, *args]
        self._child = None
        self.url = self.host = self.token = None
        self.port = 0
        self.exit_code = None

    def __enter__(self):
        self._child = Process(self.words, stdout=subprocess.PIPE)
        readable, _, _ = select.select([self._child.process.stdout], [], [], scaled(SECONDS))
        assert readable, "the console printed nothing"
        self.url = self._child.process.stdout.readline().decode().strip()
        found = re.fullmatch(r"http://([\w.]+):(\d+)/\?token=([A-Za-z]{16,})", self.url)
        assert found, f"not an address with a token: {self.url!r}; {self.stderr}"
        self.host, self.port, self.token = found.group(1), int(found.group(2)), found.group(3)
        return self

    def __exit__(self, kind=None, *_):
        try:
            if self._child.running() and kind is None:
                assert self.stop() == 0, self.stderr
        finally:
            self._child.kill()
            self._child.process.stdout.close()

    @property
    def pid(self):
        return self._child.pid

    @property
    def stderr(self):
        return self._child.stderr

    def wait_for_line(self, pattern):
        return self._child.wait_for_line(pattern)

    def running(self):
        return self._child.running()

    def stop(self, number=signal.SIGINT, seconds=STOP_SECONDS):
        self.exit_code = self._child.stop(number, seconds)
        return self.exit_code

    def open(self, method, path, body=None, headers=None, token=True):
        """Sends a request; returns the connection and the response, not yet read."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=scaled(SECONDS))
        all_headers = {"Authorization": f"Bearer {self.token}"} if token else {}
        connection.request(method, path, body=body, headers=all_headers | (headers or {}))
        return connection, connection.getresponse()

    def request(self, method, path, body=None, headers=None, token=True):
        """The response with its body read: status, headers, text."""
        connection, response = self.open(method, path, body, headers, token)
        try:
            return response.status, response.headers, response.read().decode()
        finally:
            connection.close()

    def get(self, path, **options):
        """Status and body of a GET."""
        status, _, text = self.request("GET", path, **options)
        return status, text

    def state(self, query=""):
        status, text = self.get(f"/api/state{query}")
        assert status == 200, text
        return json.loads(text)

    def instrument(self, symbol):
        status, text = self.get(f"/api/instruments/{symbol}")
        assert status == 200, text
        return json.loads(text)

    def command(self, command, **more):
        """Status and object of a command's reply."""
        status, _, text = self.request("POST", "/api/command", json.dumps({"command": command} | more))
        return status, json.loads(text)

    def metrics(self):
        """Every sample by its name with labels."""
        status, text = self.get("/metrics")
        assert status == 200, text
        return {line.rsplit(" ", 1)[0]: float(line.rsplit(" ", 1)[1])
                for line in text.splitlines() if not line.startswith("#")}

    def wait_for(self, condition, seconds=60, query=""):
        """Waits until the state fulfills the condition, and returns it."""
        def fulfilled():
            state = self.state(query)
            return state if condition(state) else None
        return wait_until(fulfilled, seconds, "the console's state")

    def stream(self, query=""):
        connection, response = self.open("GET", f"/api/events{query}")
        assert response.status == 200, response.read()
        return Stream(connection, response)

    def socket(self):
        """A bare connection."""
        return socket.create_connection(("127.0.0.1", self.port), timeout=scaled(SECONDS))

    def head(self, line):
        """The beginning of a request: the line, Host and token."""
        return (f"{line} HTTP/1.1\r\nHost: 127.0.0.1:{self.port}\r\n"
                f"Authorization: Bearer {self.token}\r\n").encode()
