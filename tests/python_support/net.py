"""Two network namespaces with a cable between them, for tests of what a network does to the feed.

    with Cable() as cable:
        feed = cable.start("feed", program("tessel"), "--iface", cable.feed_address)
        done = cable.run("receiver", program("tesselctl"), "doctor", "--iface", cable.receiver_address)

Both ends are this host's; nothing leaves it. The namespaces are removed at the end, whatever happened.
"""

import os
import shutil
import subprocess

from feed import Process

_made = 0


def can_make_namespaces():
    """Whether this process may make network namespaces; a test that needs them is skipped otherwise."""
    if os.geteuid() != 0 or shutil.which("ip") is None:
        return False
    name = f"tessel-try-{os.getpid()}"
    if subprocess.run(["ip", "netns", "add", name], capture_output=True, check=False).returncode != 0:
        return False
    subprocess.run(["ip", "netns", "delete", name], check=True)
    return True


class Cable:
    """Namespaces `feed` and `receiver`, joined by a veth pair that is called `wire` at both ends."""

    feed_address = "10.77.0.1"
    receiver_address = "10.77.0.2"

    def __init__(self, mtu=9000):
        global _made
        _made += 1
        tag = f"tessel-{os.getpid()}-{_made}"
        self.names = {"feed": f"{tag}-feed", "receiver": f"{tag}-recv"}
        self._mtu = mtu
        self._children = []

    def __enter__(self):
        try:
            for name in self.names.values():
                self._command("ip", "netns", "add", name)
            self._command("ip", "link", "add", "wire", "mtu", self._mtu, "netns", self.names["feed"],
                          "type", "veth",
                          "peer", "name", "wire", "mtu", self._mtu, "netns", self.names["receiver"])
            for end, address in (("feed", self.feed_address), ("receiver", self.receiver_address)):
                self.ip(end, "address", "add", f"{address}/24", "dev", "wire")
                self.ip(end, "link", "set", "lo", "up")
                self.ip(end, "link", "set", "wire", "up")
                self.ip(end, "route", "add", "224.0.0.0/4", "dev", "wire")
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for child in self._children:
            child.kill()
        for name in self.names.values():
            subprocess.run(["ip", "netns", "delete", name], capture_output=True, check=False)

    @staticmethod
    def _command(*words):
        subprocess.run([str(word) for word in words], check=True, capture_output=True, timeout=60)

    def ip(self, end, *words):
        """One command of `ip` in the namespace at that end."""
        self._command("ip", "-n", self.names[end], *words)

    def within(self, end, *words):
        """The command line that runs these words in the namespace at that end."""
        return ["ip", "netns", "exec", self.names[end], *map(str, words)]

    def run(self, end, *words, **options):
        """Runs a program there to its end."""
        return subprocess.run(self.within(end, *words), capture_output=True, text=True, timeout=200,
                              check=False, **options)

    def start(self, end, *words):
        """Starts a program there; it is ended with the namespaces."""
        child = Process(self.within(end, *words))
        self._children.append(child)
        return child
