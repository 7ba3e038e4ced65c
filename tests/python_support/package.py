"""The packages of this build, and roots of a Debian system to install them in.

Both are made once: the packages anew when a program or a packaged file is newer, the roots when their list of
packages changes. Several tests may ask at the same time; the first one works, the others wait."""

import fcntl
import hashlib
import os
import shutil
import subprocess
from contextlib import contextmanager
from pathlib import Path

import pytest

from time_scale import scaled

SOURCE = Path(os.environ["TESSEL_SOURCE"])
BUILD = Path(os.environ["TESSEL_BUILD"])
FOLDER = SOURCE / "build" / "package"
PACKAGED = ("man", "packaging", "docs", "examples", "python", "vectors", "certify/cases",
            "tools/wireshark", "cmake", "scripts/package", "scripts/samples")


@contextmanager
def locked(name):
    (SOURCE / "build").mkdir(exist_ok=True)
    with open(SOURCE / "build" / f".{name}.lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def run(*command, seconds=60, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False,
                          timeout=scaled(seconds), **options)
    assert done.returncode == 0, f"{command}: {done.returncode}\n{done.stdout[-3000:]}\n{done.stderr[-3000:]}"
    return done.stdout


def newest(paths):
    return max((path.stat().st_mtime for path in paths if path.is_file()), default=0)


def packages():
    """The paths of the packages: what `scripts/package --no-build` makes of this build."""
    with locked("package"):
        made = newest(FOLDER.glob("tessel_*.deb"))
        sources = [path for name in PACKAGED for path in [SOURCE / name, *(SOURCE / name).rglob("*")]
                   if "__pycache__" not in path.parts]
        programs = [path for path in BUILD.glob("tessel*") if os.access(path, os.X_OK)]
        generated = [BUILD / name for name in ("manual/made", "pages/made", "samples/README.md")]
        if made <= newest(sources + programs + generated):
            run(SOURCE / "scripts/package", "--no-build", seconds=120)
    return {path.name.split("_")[0] + path.suffix: path for path in FOLDER.iterdir()}


# What a user's system has beside the package, as far as the package has something for it.
USER_PACKAGES = ["bash-completion", "iproute2", "man-db", "procps", "python3", "systemd", "tshark", "zsh"]


def needed_packages():
    """The names of the Debian packages that the package depends on."""
    depends = run("dpkg-deb", "-f", packages()["tessel.deb"], "Depends")
    return sorted(each.split()[0] for each in depends.split(","))


def debian_root(name, names):
    """A tar file with Debian 12 and the packages named, made once for each list; None with the reason when it
    cannot be made here."""
    tag = hashlib.sha256(" ".join(names).encode()).hexdigest()[:12]
    path = SOURCE / "build" / "roots" / f"{name}-{tag}.tar"
    with locked(f"root-{name}"):
        if path.exists():
            return path, ""
        if os.geteuid() != 0:
            return None, "making a Debian root needs root"
        path.parent.mkdir(parents=True, exist_ok=True)
        part = path.with_suffix(".part.tar")
        done = subprocess.run(
            ["mmdebstrap", "--quiet", "--variant=minbase", f"--include={','.join(names)}",
             "--dpkgopt=force-unsafe-io", "--aptopt=Acquire::Languages none", "bookworm", str(part)],
            capture_output=True, text=True, check=False, timeout=scaled(600))
        if done.returncode != 0:
            part.unlink(missing_ok=True)
            return None, f"no Debian root: {done.stderr.strip().splitlines()[-1:]}"
        part.rename(path)
        for old in path.parent.glob(f"{name}-*.tar"):
            if old != path:
                old.unlink()
        return path, ""


def unpacked_root(tmp_path_factory, name, wanted):
    """The Debian root of that name, unpacked for a module's tests and removed after them: for a fixture."""
    tar, reason = debian_root(name, sorted({*wanted, *needed_packages()}))
    if tar is None:
        pytest.skip(f"skipped: {reason}")
    folder = tmp_path_factory.mktemp("root") / "root"
    folder.mkdir()
    run("tar", "-xf", tar, "-C", folder, seconds=120)
    yield folder
    shutil.rmtree(folder.parent)


def copied_packages(folder):
    """The Debian packages, copied into a new folder of that name."""
    folder.mkdir()
    for name, path in packages().items():
        if name.endswith(".deb"):
            shutil.copy(path, folder / name)
    return folder
