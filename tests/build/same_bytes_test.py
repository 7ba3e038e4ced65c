"""The same seed gives the same feed, whatever compiled it.

A small program (digest/digest_main.cpp) runs the market in memory under a simulated clock and writes every
packet and the truth log to files. It is built with g++ and clang++, each at -O0 and at the level of its
release builds, and the files must be the same.
"""

import concurrent.futures
import hashlib
import os
import re
import subprocess
import tempfile
from pathlib import Path

import pytest

SOURCE = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
MAIN = SOURCE / "tests/build/digest/digest_main.cpp"
TICKS = 10_000
BUILDS = [("g++", "-O0"), ("g++", "-O3"), ("clang++", "-O0"), ("clang++", "-O2")]

# What the market needs; sockets stay out, and the version, which the build makes.
PARTS = ["base/*.cpp", "market/*.cpp", "wire/*_messages.cpp", "wire/message_writer.cpp", "engine/*.cpp",
         "output/truth_log.cpp", "output/number_text.cpp", "mold/publisher.cpp", "mold/fault_injector.cpp",
         "mold/message_history.cpp"]


FLAGS = ["-std=c++20", "-ffp-contract=off", f"-I{SOURCE / 'src'}"]


def compile_it(compiler, arguments):
    """One call of a compiler; its complaint is the assertion's text."""
    command = [compiler, *FLAGS, *map(str, arguments)]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    assert done.returncode == 0, f"{compiler} {arguments}\n{done.stderr}"


def system_headers(files):
    """A header with every header of the system that the files include: precompiled, it halves the time."""
    lines = {line for file in files for line in file.read_text().splitlines()
             if re.match(r"#include <", line)}
    return "\n".join(sorted(lines)) + "\n"


def build(compiler, level, sources, folder, pool):
    """Compiles the sources for one build; returns the jobs that are not finished yet."""
    common = folder / "common.h"
    common.write_text(system_headers(sources + list((SOURCE / "src").glob("*/*.h"))))
    precompiled = folder / ("common.h.pch" if compiler == "clang++" else "common.h.gch")
    compile_it(compiler, [level, "-x", "c++-header", common, "-o", precompiled])
    include = ["-include-pch", precompiled] if compiler == "clang++" else ["-include", common]
    return [pool.submit(compile_it, compiler,
                        [level, *include, "-c", source, "-o", folder / f"{source.stem}.o"])
            for source in sources]


def released_library():
    """The library of a release build, which is what g++ makes at -O3; None when another build is tested."""
    folder = Path(os.environ.get("TESSEL_BUILD", "."))
    cache, library = folder / "CMakeCache.txt", folder / "libtessel_lib.a"
    if not cache.exists() or not library.exists():
        return None
    options = cache.read_text()
    shipped = "CMAKE_BUILD_TYPE:STRING=Release" in options and "TESSEL_LTO:BOOL=ON" in options
    return library if shipped else None


@pytest.fixture(name="programs", scope="module")
def build_programs():
    """The digest program of each build, by (compiler, level)."""
    sources = [MAIN] + sorted(path for part in PARTS for path in (SOURCE / "src").glob(part)
                              if path.name != "version.cpp")
    missing = [part for part in PARTS if not list((SOURCE / "src").glob(part))]
    assert not missing
    with tempfile.TemporaryDirectory(prefix="tessel-digest-") as folder:
        programs, jobs = {}, []
        with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
            for compiler, level in BUILDS:
                here = Path(folder) / f"{compiler}{level}"
                here.mkdir()
                programs[compiler, level] = here / "digest"
                own = sources if (compiler, level) != ("g++", "-O3") or not released_library() else [MAIN]
                jobs += build(compiler, level, own, here, pool)
            for job in jobs:
                job.result()
        for (compiler, level), program in programs.items():
            objects = sorted(str(path) for path in program.parent.glob("*.o"))
            if len(objects) == 1:
                objects.append(str(released_library()))
            else:
                assert len(objects) == len(sources)
            subprocess.run([compiler, level, *objects, "-o", str(program)], check=True)
        yield programs


# The C library's mathematics as on a processor without fused multiply-add.
WITHOUT_FUSED = {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=-FMA,-AVX2,-FMA4"}


def run(program, seed, ticks=TICKS, environment=None):
    """Runs the program; returns the SHA-256 of its packets and of its truth log, and their sizes."""
    with tempfile.TemporaryDirectory(prefix="tessel-digest-") as folder:
        packets, truth = Path(folder) / "packets", Path(folder) / "truth"
        command = [program, str(seed), str(ticks), packets, truth]
        subprocess.run(command, check=True, stderr=subprocess.DEVNULL,
                       env={**os.environ, **(environment or {})})
        contents = packets.read_bytes(), truth.read_bytes()
    digests = [hashlib.sha256(content).hexdigest() for content in contents]
    return digests + [len(content) for content in contents]


def test_both_compilers_at_both_levels_give_the_same_packets_and_truth(programs):
    """All builds against one."""
    results = {build: run(program, 7) for build, program in programs.items()}
    first = results["g++", "-O3"]
    assert first[2] > 100 * TICKS and first[3] > 100 * TICKS, "the run is too small to say anything"
    assert all(result == first for result in results.values()), results


def test_same_seed_twice_gives_the_same_bytes_and_another_seed_others(programs):
    """Two runs of one program."""
    program = programs["g++", "-O3"]
    first = run(program, 11)
    assert run(program, 11) == first
    other = run(program, 12)
    assert other[0] != first[0] and other[1] != first[1]


def test_a_processor_without_fused_multiply_add_gives_the_same_bytes(programs):
    """The library chooses its functions by what the processor has; none of them may matter."""
    for program in (programs["g++", "-O3"], programs["clang++", "-O2"]):
        assert run(program, 7, environment=WITHOUT_FUSED) == run(program, 7)
