"""Fixtures for pytest: tessel_feed and tessel_listener, and the artifacts of a test that fails."""

from __future__ import annotations

import re
import shutil
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

from tessel.feed import Feed
from tessel.listener import Listener

_failed = pytest.StashKey[bool]()


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.getgroup("tessel").addoption("--tessel-artifacts", metavar="DIR", default=None,
                                        help="keep the files of tests that fail in DIR")


@pytest.hookimpl(hookwrapper=True)  # type: ignore[misc]
def pytest_runtest_makereport(item: pytest.Item) -> Iterator[None]:
    outcome: Any = yield
    if outcome.get_result().failed:
        item.stash[_failed] = True


def _keep(request: pytest.FixtureRequest, folder: Path, messages: dict[str, list[str]]) -> None:
    """Copies a folder of a failed test to the artifacts, with what the programs wrote to standard error."""
    target = request.config.getoption("--tessel-artifacts")
    if target is None or not request.node.stash.get(_failed, False):
        return
    name = re.sub(r"[^\w.\-\[\]]+", "_", request.node.nodeid)
    place = Path(target) / name
    number = 1
    while (place / f"feed-{number}").exists():
        number += 1
    shutil.copytree(folder, place / f"feed-{number}")
    for program, lines in messages.items():
        (place / f"feed-{number}" / f"{program}.stderr").write_text("".join(line + "\n" for line in lines))


@pytest.fixture
def tessel_feed(request: pytest.FixtureRequest,
                tmp_path_factory: pytest.TempPathFactory) -> Iterator[Callable[..., Feed]]:
    """tessel_feed(**options) starts a feed: the arguments of tessel.Feed. It ends with the test."""
    feeds: list[Feed] = []

    def start(**options: Any) -> Feed:
        options.setdefault("folder", tmp_path_factory.mktemp("feed"))
        feeds.append(Feed(**options))
        return feeds[-1]
    yield start
    for feed in reversed(feeds):
        feed.close()
        _keep(request, feed.folder, {"tessel": feed.process.stderr})


@pytest.fixture
def tessel_listener(tessel_feed: Callable[..., Feed]) -> Iterator[Callable[..., Listener]]:
    """tessel_listener(feed, **options) starts tessel-listen beside a feed. It ends before the feed does."""
    listeners: list[tuple[Listener, Path]] = []

    def start(feed: Feed, **options: Any) -> Listener:
        listeners.append((Listener(feed, **options), feed.folder))
        return listeners[-1][0]
    yield start
    for listener, folder in reversed(listeners):
        listener.close()
        words = "".join(line + "\n" for line in listener.process.stderr)
        (folder / f"{listener.output.stem}.stderr").write_text(words)
