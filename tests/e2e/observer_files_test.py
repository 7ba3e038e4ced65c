"""The book, BBO and truth files as an observer finds them, also when their folder or disk fails."""

import json
import os
import re
import resource
import shutil
import signal
import subprocess
import threading
import time

from feed import Feed, Process, wait_until
from time_scale import scaled
from vitals import signals

# As fast as it can, for this long. The files are replaced four times a second.
READER_SECONDS = 10

BOOK_MEMBERS = ["bid", "ask", "last", "volume", "status"]
BBO_LINE = re.compile(r"[A-Z]+ [0-9.e+]+ [0-9.e+]+")


def assert_is_a_book(text, symbols):
    assert text.endswith("}}\n"), text[-60:]
    assert text.count("\n") == 1
    book = json.loads(text)
    assert list(book) == ["ts_ns", "symbols"]
    assert list(book["symbols"]) == symbols
    for member in book["symbols"].values():
        assert list(member) == BOOK_MEMBERS
        bids = [price for price, _ in member["bid"]]
        asks = [price for price, _ in member["ask"]]
        assert bids == sorted(bids, reverse=True) and len(bids) <= 5
        assert asks == sorted(asks) and len(asks) <= 5
        assert all(size > 0 for _, size in member["bid"] + member["ask"])
    return book


def assert_is_a_bbo(text, symbols):
    lines = text.splitlines()
    assert text.endswith("\n")
    assert [line.split(" ")[0] for line in lines] == symbols
    assert all(BBO_LINE.fullmatch(line) for line in lines), lines


def start_and_wait_for_files(feed):
    feed.start()
    wait_until(lambda: feed.book_path.exists() and feed.bbo_path.exists(), what="the first files")


def stamp(feed):
    try:
        return json.loads(feed.book_path.read_text())["ts_ns"]
    except FileNotFoundError:
        return 0


def test_reader_that_polls_as_fast_as_it_can_never_sees_a_part(tmp_path):
    symbols = [f"SYM{chr(65 + one)}{chr(65 + two)}" for one in range(12) for two in range(25)]
    feed = Feed(tmp_path, book=True, bbo=True, truth=False, interval_ms=20,
                symbols=",".join(f"{symbol}:{100 + 3 * at}" for at, symbol in enumerate(symbols)))
    start_and_wait_for_files(feed)
    seen = {"book": set(), "bbo": set()}
    reads = 0
    with feed:
        end = time.monotonic() + READER_SECONDS
        while time.monotonic() < end:
            seen["book"].add(feed.book_path.read_text())
            seen["bbo"].add(feed.bbo_path.read_text())
            reads += 2
    for text in seen["book"]:
        assert_is_a_book(text, symbols)
    for text in seen["bbo"]:
        assert_is_a_bbo(text, symbols)
    # It did read while the files changed, and far more often than they did.
    assert len(seen["book"]) > 5
    assert reads > 10 * len(seen["book"])
    # The last good write leaves no .tmp file. (One may exist for the moment of a write.)
    assert feed.exit_code == 0
    left = sorted(path.name for path in tmp_path.iterdir())
    assert [name for name in left if not name.endswith(".tmp")] == ["bbo.txt", "book.json"]


def test_files_are_rewritten_about_four_times_a_second(tmp_path):
    feed = Feed(tmp_path, book=True, bbo=True)
    start_and_wait_for_files(feed)
    stamps = set()
    with feed:
        end = time.monotonic() + 3
        while time.monotonic() < end:
            stamps.add(stamp(feed))
            time.sleep(0.01)
    steps = [(later - earlier) / 1e6 for earlier, later in zip(sorted(stamps), sorted(stamps)[1:])]
    # Never sooner than 250 ms (the two clocks may differ by a hair); how late depends on the machine's load.
    assert min(steps) > 240
    assert len(steps) >= 3


def test_book_and_bbo_agree_with_the_truth_log_once_the_model_stands_still(tmp_path):
    feed = Feed(tmp_path, book=True, bbo=True, interval_ms=10, symbols="AAPL:190.00,MSFT:410.00,BRK:1234.56")
    start_and_wait_for_files(feed)
    with feed:
        feed.wait_for_messages(400)
        feed.control("rate -1")
        still = time.time_ns()
        wait_until(lambda: stamp(feed) > still, what="a book of the frozen market")
        book = assert_is_a_book(feed.book_path.read_text(), ["AAPL", "MSFT", "BRK"])
        wait_until(lambda: stamp(feed) > book["ts_ns"], what="the book after the BBO of this one")
        bbo = feed.bbo_path.read_text().splitlines()
        truth = feed.truth()
    for symbol, line in zip(book["symbols"], bbo):
        quote = [each for each in truth if each.get("symbol") == symbol and "nbbo" in each][-1]
        trades = [each for each in truth if each.get("symbol") == symbol and "trade" in each]
        member = book["symbols"][symbol]

        def as_printed(price):
            return float(f"{price:.6g}")
        assert member["bid"] == [[as_printed(price), size] for price, size in quote["bid"][:5]]
        assert member["ask"] == [[as_printed(price), size] for price, size in quote["ask"][:5]]
        assert member["status"] == quote["status"]
        assert member["last"] == as_printed(trades[-1]["trade"][0])
        assert member["volume"] == sum(trade["trade"][1] for trade in trades)
        assert line == f"{symbol} {quote['nbbo'][0]:g} {quote['nbbo'][2]:g}"


def test_folder_that_disappears_and_comes_back_is_survived(tmp_path):
    folder = tmp_path / "out"
    folder.mkdir()
    feed = Feed(folder, book=True, bbo=True)
    start_and_wait_for_files(feed)
    with feed:
        gone = tmp_path / "gone"
        folder.rename(gone)
        number = feed.next_seq()
        feed.wait_for_messages(number + 30)
        assert not folder.exists()
        folder.mkdir()
        wait_until(lambda: stamp(feed) > 0 and feed.bbo_path.exists(), what="the files in the new folder")
        assert_is_a_bbo(feed.bbo_path.read_text(), ["AAPL", "MSFT", "TSLA"])
        # The truth log goes on in the file that was opened, wherever that is now.
        before = (gone / "truth.jsonl").stat().st_size
        wait_until(lambda: (gone / "truth.jsonl").stat().st_size > before, what="more truth")
        shutil.rmtree(folder)
        number = feed.next_seq()
        feed.wait_for_messages(number + 30)
    assert feed.exit_code == 0


def test_file_that_cannot_be_written_whole_leaves_the_old_one(tmp_path):
    feed = Feed(tmp_path, book=True, bbo=True)
    start_and_wait_for_files(feed)
    with feed:
        # From now on the .tmp file is the device that is always full, as often as the feed removes it.
        stop = threading.Event()
        temporary = tmp_path / "book.json.tmp"

        def keep_full():
            while not stop.is_set():
                try:
                    temporary.symlink_to("/dev/full")
                except FileExistsError:
                    pass
                time.sleep(0.0005)
        keeper = threading.Thread(target=keep_full)
        keeper.start()
        try:
            wait_until(temporary.is_symlink, what="the full device")
            for _ in range(200):
                assert_is_a_book(feed.book_path.read_text(), ["AAPL", "MSFT", "TSLA"])
                time.sleep(0.005)
        finally:
            stop.set()
            keeper.join()
        assert not feed.book_path.is_symlink()
        if temporary.is_symlink():
            temporary.unlink()
        now = time.time_ns()
        wait_until(lambda: stamp(feed) > now, what="a new book once there is room")
    assert feed.exit_code == 0


def test_truth_log_on_a_full_device_falls_silent_and_the_feed_goes_on(tmp_path):
    with Feed(tmp_path, "--truth-out", "/dev/full", truth=False, book=True) as feed:
        feed.wait_for_messages(200)
        assert feed.control("mark here") == "ok mark here"
        feed.wait_for_line("bench: mark here at seq")
        assert feed.stats()["quotes"] > 50
    assert feed.exit_code == 0
    assert not any("truth" in line for line in feed.stderr)


def test_truth_log_that_cannot_be_opened_is_not_an_end(tmp_path):
    with Feed(tmp_path, "--truth-out", tmp_path / "no" / "such" / "folder", truth=False) as feed:
        feed.wait_for_messages(100)
    assert feed.exit_code == 0


class SizeLimitedFeed(Feed):
    """A feed that may write no file beyond 20,000 bytes: a full disk, but for the signal that comes with it.
    It is started without Python in between, which would have it ignored already."""

    def command(self):
        return ["prlimit", "--fsize=20000:20000", *super().command()]


def test_feed_ignores_the_signals_of_write_errors_by_itself(tmp_path):
    """A child of these tests starts with the usual reaction to every signal, and the feed changes it."""
    with Process(["sleep", "600"]) as other:
        assert not signals(other.pid, "SigIgn") & {signal.SIGPIPE, signal.SIGXFSZ}
    with Feed(tmp_path) as feed:
        assert {signal.SIGPIPE, signal.SIGXFSZ} <= signals(feed.pid, "SigIgn")


def test_first_write_already_beyond_the_file_size_limit_is_not_an_end(tmp_path):
    """A write that ends short at the limit brings no signal; one that begins there does."""
    feed = SizeLimitedFeed(tmp_path, interval_ms=10)
    feed.truth_path.write_bytes(b"\n" * 20000)
    with feed:
        feed.wait_for_messages(300)
    assert feed.exit_code == 0
    assert feed.truth_path.stat().st_size == 20000


def test_reader_of_standard_error_that_goes_away_is_not_an_end(tmp_path):
    feed = Feed(tmp_path, "--dup-every", "1", interval_ms=10)
    child = subprocess.Popen(feed.command(), env=feed.environment(), stderr=subprocess.PIPE)
    try:
        for line in child.stderr:
            if b"UQDF+UTDF" in line:
                break
        child.stderr.close()
        # Every packet prints a line now, into a pipe that nobody has.
        number = feed.next_seq()
        feed.wait_for_messages(number + 200)
        assert feed.stats()["duplicated"] > 10
        child.send_signal(signal.SIGTERM)
        assert child.wait(scaled(60)) == 0
    finally:
        child.kill()
        child.wait()
        feed.__exit__()


def test_file_size_limit_ends_the_truth_log_in_whole_lines_or_a_cut_last_one_and_not_the_process(tmp_path):
    with SizeLimitedFeed(tmp_path, book=True, interval_ms=10) as feed:
        feed.wait_for_messages(1000)
        wait_until(lambda: feed.truth_path.stat().st_size == 20000, what="the limit")
        number = feed.next_seq()
        feed.wait_for_messages(number + 200)
        assert feed.truth_path.stat().st_size == 20000
        sequences = [line["seq"] for line in feed.truth()]
        assert sequences == sorted(sequences)
        assert_is_a_book(feed.book_path.read_text(), ["AAPL", "MSFT", "TSLA"])
    assert feed.exit_code == 0


class SmallDisk:
    """A file system of 256 KiB at `folder` where one may be mounted; elsewhere a limit on the size of the
    feed's files, which fails its writes in the same way."""

    SIZE = 256 * 1024
    FILE_LIMIT = 30_000

    def __init__(self, folder):
        self.folder = folder
        folder.mkdir()
        self.mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={self.SIZE}", "tmpfs", folder],
                                      capture_output=True, check=False).returncode == 0

    def limit(self, feed):
        if not self.mounted:
            hard = resource.prlimit(feed.pid, resource.RLIMIT_FSIZE)[1]
            resource.prlimit(feed.pid, resource.RLIMIT_FSIZE, (self.FILE_LIMIT, hard))

    def is_full(self, feed):
        if self.mounted:
            return os.statvfs(self.folder).f_bavail == 0
        return feed.truth_path.stat().st_size == self.FILE_LIMIT

    def make_room(self, feed):
        if self.mounted:
            os.truncate(feed.truth_path, 0)
        else:
            hard = resource.prlimit(feed.pid, resource.RLIMIT_FSIZE)[1]
            resource.prlimit(feed.pid, resource.RLIMIT_FSIZE, (hard, hard))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.mounted:
            subprocess.run(["umount", "-l", self.folder], check=False)


def test_small_disk_that_fills_up_and_gets_room_again(tmp_path):
    with SmallDisk(tmp_path / "disk") as disk:
        feed = Feed(disk.folder, book=True, bbo=True, interval_ms=10)
        start_and_wait_for_files(feed)
        with feed:
            disk.limit(feed)
            wait_until(lambda: disk.is_full(feed), what="the full disk")
            number = feed.next_seq()
            feed.wait_for_messages(number + 300)
            # The observers' files are whole, old as they may be; the log's last complete line is a line.
            assert_is_a_book(feed.book_path.read_text(), ["AAPL", "MSFT", "TSLA"])
            assert_is_a_bbo(feed.bbo_path.read_text(), ["AAPL", "MSFT", "TSLA"])
            assert len(feed.truth()) > 50
            # Room comes back: the book is new again, the truth log stays silent for good.
            disk.make_room(feed)
            silent = feed.truth_path.stat().st_size
            now = time.time_ns()
            wait_until(lambda: stamp(feed) > now, what="a new book")
            assert feed.truth_path.stat().st_size == silent
        assert feed.exit_code == 0
