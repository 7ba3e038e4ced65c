"""A feed that was started with some of its standard descriptors closed: its log output must not end up in its
files or sockets, which would otherwise get the free numbers."""

import os

import pytest
from feed import Feed, wait_until
from mold import Listener


class FeedWithClosedDescriptors(Feed):
    """Closes the descriptors named, in words of the shell such as "0<&- 2>&-", before the program starts."""

    def __init__(self, folder, closed):
        super().__init__(folder, "--drop-every", "2", interval_ms=10, book=True)
        self.closed = closed

    def command(self):
        return ["/bin/sh", "-c", f'exec "$@" {self.closed}', "sh", *super().command()]

    def start_without_banner(self):
        """Starts it without waiting for the banner, which nobody can read."""
        # pylint: disable=attribute-defined-outside-init
        self._child = self.make_process()
        wait_until(lambda: self.book_path.exists(), what="the first book")
        return self


@pytest.mark.parametrize("closed", ["2>&-", "0<&- 2>&-", "1>&- 2>&-", "0<&- 1>&- 2>&-"])
def test_standard_error_closed_truth_log_and_packets_hold_nothing_else(tmp_path, closed):
    feed = FeedWithClosedDescriptors(tmp_path, closed)
    with Listener(feed) as listener, feed.start_without_banner():
        feed.wait_for_messages(200)
        assert feed.control("mark here") == "ok mark here"
        for number in range(3):
            assert os.path.exists(f"/proc/{feed.pid}/fd/{number}"), number
        assert os.readlink(f"/proc/{feed.pid}/fd/2") == "/dev/null"
        assert feed.stop() == 0
        # Every line is one of the truth log's, every packet one of the feed's.
        assert all(isinstance(line, dict) for line in feed.truth())
        assert listener.messages()


def test_standard_input_closed_everything_as_ever(tmp_path):
    with FeedWithClosedDescriptors(tmp_path, "0<&-").start() as feed:
        feed.wait_for_messages(200)
        assert os.readlink(f"/proc/{feed.pid}/fd/0") == "/dev/null"
        assert feed.stop() == 0
        assert feed.stderr[-1] == "[tessel] stopped"
        assert all(isinstance(line, dict) for line in feed.truth())
