"""Child processes: found, started, read, and always ended."""

from __future__ import annotations

import ctypes
import os
import re
import shutil
import signal
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Callable, Mapping, Optional, Sequence, TypeVar, Union

PR_SET_PDEATHSIG = 1
_libc = ctypes.CDLL(None, use_errno=True)

Result = TypeVar("Result")


class StartError(RuntimeError):
    """A program did not start; the text has its last words."""


def time_scale() -> float:
    """By how much waits are lengthened: TESSEL_TIME_SCALE, for a slow or busy machine."""
    return float(os.environ.get("TESSEL_TIME_SCALE", "1"))


def program(name: str) -> str:
    """The path of a program: in the folder that TESSEL_BIN names, otherwise on the search path."""
    folder = os.environ.get("TESSEL_BIN")
    if folder:
        path = Path(folder) / name
        if not path.exists():
            raise FileNotFoundError(f"{name} is not in TESSEL_BIN={folder}")
        return str(path)
    found = shutil.which(name)
    if found is None:
        raise FileNotFoundError(f"{name} is not on the search path: install it, or set TESSEL_BIN")
    return found


def wait_until(condition: Callable[[], Optional[Result]], seconds: float, what: str) -> Result:
    """Calls the condition until it returns something true, and returns that. TimeoutError after `seconds`."""
    begin = time.monotonic()
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() - begin > seconds * time_scale():
            raise TimeoutError(f"waited {seconds * time_scale():.0f} s for {what}")
        time.sleep(0.01)


def _end_with_the_parent(parent: int) -> None:
    """In the child, before it becomes the program: the system ends it when the interpreter ends."""
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
    if os.getppid() != parent:  # it has ended already
        os._exit(1)


def _start(command: Sequence[str], env: Optional[Mapping[str, str]]) -> "subprocess.Popen[bytes]":
    parent = os.getpid()
    return subprocess.Popen(command, env=None if env is None else dict(env), stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                            preexec_fn=lambda: _end_with_the_parent(parent))


# The system sends the death signal when the thread that started the child ends, so one thread starts all.
_starter = ThreadPoolExecutor(max_workers=1, thread_name_prefix="tessel-starter")


class Process:
    """A child process whose standard error is collected line by line while it runs."""

    def __init__(self, command: Sequence[Union[str, "os.PathLike[str]"]],
                 env: Optional[Mapping[str, str]] = None) -> None:
        self.command = [os.fspath(word) for word in command]
        self._lines: list[str] = []
        self._changed = threading.Condition()
        self._child = _starter.submit(_start, self.command, env).result()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self) -> None:
        stream = self._child.stderr
        assert stream is not None
        for line in stream:
            with self._changed:
                self._lines.append(line.decode("utf-8", "replace").rstrip("\n"))
                self._changed.notify_all()
        stream.close()
        with self._changed:
            self._changed.notify_all()

    @property
    def pid(self) -> int:
        return self._child.pid

    @property
    def stderr(self) -> list[str]:
        """The lines of standard error so far."""
        with self._changed:
            return list(self._lines)

    @property
    def running(self) -> bool:
        return self._child.poll() is None

    def wait_for_line(self, pattern: str, seconds: float) -> str:
        """The first line with a match. StartError when the process ends, or the time does, without one."""
        end = time.monotonic() + seconds * time_scale()
        expression, seen = re.compile(pattern), 0
        with self._changed:
            while True:
                for line in self._lines[seen:]:
                    if expression.search(line):
                        return line
                seen = len(self._lines)
                ended = not self._reader.is_alive()
                if ended or time.monotonic() > end:
                    why = "ended" if ended else f"wrote no such line within {seconds * time_scale():.0f} s"
                    words = "\n".join(self._lines[-20:]) or "(it wrote nothing)"
                    raise StartError(f"{Path(self.command[0]).name} {why}: {words}")
                self._changed.wait(0.05)

    def stop(self, seconds: float = 30.0) -> int:
        """SIGINT, then SIGKILL when that does not help. Returns the exit status, negative for a signal."""
        if self.running:
            self._child.send_signal(signal.SIGINT)
            try:
                self._child.wait(seconds * time_scale())
            except subprocess.TimeoutExpired:
                self._child.kill()
        status = self._child.wait()
        self._reader.join(5)
        return status
