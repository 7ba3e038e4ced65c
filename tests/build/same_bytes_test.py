"""The same seed gives the same feed, whatever compiled it and whatever runs it.

A small program (digest/digest_main.cpp) runs the market in memory under a simulated clock and writes every
packet and the truth log to files. The program of the build under test, and one that the other compiler made
at the level of its release builds, write what tests/golden/digest.sha256 says; scripts/cross holds other
machines to the same file.
`TESSEL_UPDATE_GOLDEN=1` rewrites it from the build under test.
"""

import concurrent.futures
import hashlib
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest
from time_scale import scaled

SOURCE = Path(os.environ["TESSEL_SOURCE"])
BUILT = Path(os.environ["TESSEL_BUILD"]) / "tessel_digest"
GOLDEN = SOURCE / "tests/golden/digest.sha256"
MAIN = SOURCE / "tests/build/digest/digest_main.cpp"
SEED, TICKS = 7, 10_000  # of the golden file; scripts/cross asks for the same

# What the market needs; sockets stay out, and the version, which the build makes.
FOLDERS = ["base", "market", "wire", "output", "engine", "mold"]
FLAGS = ["-std=c++20", "-ffp-contract=off", f"-I{SOURCE / 'src'}"]


def other_compiler():
    """clang++, or g++ where clang++ made the build under test."""
    cache = (BUILT.parent / "CMakeCache.txt").read_text()
    used = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.MULTILINE).group(1)
    return ["g++", "-O3"] if "clang" in Path(used).name else ["clang++", "-O2"]


def compile_it(command):
    """One call of a compiler, through its cache where there is one; its complaint is the assertion's text."""
    command = [*(["ccache"] if shutil.which("ccache") else []), *map(str, command)]
    done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=scaled(120))
    assert done.returncode == 0, f"{command}\n{done.stderr}"


@pytest.fixture(name="programs", scope="module")
def build_programs(tmp_path_factory):
    """The digest program of the build under test, and that of the other compiler."""
    folder = tmp_path_factory.mktemp("digest")
    compiler = other_compiler() + FLAGS
    sources = [MAIN] + [path for name in FOLDERS for path in sorted((SOURCE / "src" / name).glob("*.cpp"))
                        if path.name != "version.cpp"]
    assert len(sources) > 30
    objects = [folder / f"{path.parent.name}.{path.stem}.o" for path in sources]
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        jobs = [pool.submit(compile_it, [*compiler, "-c", source, "-o", made])
                for source, made in zip(sources, objects)]
        for job in jobs:
            job.result()
    compile_it([*compiler, *objects, "-o", folder / "digest"])
    return {"built": BUILT, "other": folder / "digest"}


# The C library's mathematics as on a processor without fused multiply-add.
WITHOUT_FUSED = {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=-FMA,-AVX2,-FMA4"}


def run(program, folder, seed=SEED, environment=None):
    """Runs the program; returns the lines of sha256sum for its packets and its truth log."""
    packets, truth = folder / "packets", folder / "truth"
    for path in (packets, truth):  # a truth log is appended to
        path.unlink(missing_ok=True)
    subprocess.run([program, str(seed), str(TICKS), packets, truth], check=True, stderr=subprocess.DEVNULL,
                   env={**os.environ, **(environment or {})}, timeout=scaled(60))
    assert min(packets.stat().st_size, truth.stat().st_size) > 100 * TICKS, "too small to say anything"
    return [f"{hashlib.sha256(path.read_bytes()).hexdigest()}  {path.name}" for path in (packets, truth)]


def test_both_compilers_give_the_bytes_of_the_golden_file(programs, tmp_path):
    if os.environ.get("TESSEL_UPDATE_GOLDEN"):
        GOLDEN.write_text("\n".join(run(BUILT, tmp_path)) + "\n")
    expected = GOLDEN.read_text().splitlines()
    for name, program in programs.items():
        assert run(program, tmp_path) == expected, name


def test_a_processor_without_fused_multiply_add_gives_the_same_bytes(programs, tmp_path):
    """The library chooses its functions by what the processor has; none of them may matter."""
    expected = GOLDEN.read_text().splitlines()
    for name, program in programs.items():
        assert run(program, tmp_path, environment=WITHOUT_FUSED) == expected, name


def test_same_seed_twice_gives_the_same_bytes_and_another_seed_others(tmp_path):
    first = run(BUILT, tmp_path, seed=11)
    assert run(BUILT, tmp_path, seed=11) == first
    assert not set(run(BUILT, tmp_path, seed=12)) & set(first)
