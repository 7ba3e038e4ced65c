"""The mutation run on a tree of a few lines; that its table fits this tree; and ten of its faults."""

import os
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest
from time_scale import scaled

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
SCRIPT = ROOT / "scripts" / "mutants"

CMAKE = """cmake_minimum_required(VERSION 3.25)
project(small LANGUAGES CXX)
add_executable(unit_tests src/limit.cpp tests/limit_test.cpp)
"""
SOURCE = """int limited(int value) { return value > 10 ? 10 : value; }
int steps(int count) { int done = 0; while (done < count) { ++done; } return done; }
"""
# Takes the place of a GoogleTest program: a filter is a name.
TEST = """#include <cstring>
int limited(int value);
int steps(int count);
int main(int, char** arguments) {
    if (std::strstr(arguments[2], "Wrong") != nullptr) { return 1; }
    if (std::strstr(arguments[2], "Steps") != nullptr) { return steps(3) == 3 ? 0 : 1; }
    return limited(5) == 5 && limited(12) == 10 ? 0 : 1;
}
"""
HEAD = "file src/limit.cpp\ntests unit Limited\n\n"
KILLED = "- ? 10 : value\n+ ? 11 : value\n"
SURVIVES = "- value > 10\n+ value > 11\n"
EQUIVALENT = "- value > 10\n+ value >= 10\nequivalent ten is limited to ten\n"
HANGS = "- ++done;\ntests unit Steps\n"


@pytest.fixture(scope="module", name="tree")
def small_tree(tmp_path_factory):
    """One tree for all, so that the compiler is examined once."""
    root = tmp_path_factory.mktemp("small")
    for name, text in (("CMakeLists.txt", CMAKE), ("src/limit.cpp", SOURCE), ("tests/limit_test.cpp", TEST),
                       (".gitignore", "/build/\n"), ("tests/mutants/table.txt", "")):
        (root / name).parent.mkdir(parents=True, exist_ok=True)
        (root / name).write_text(text)
    subprocess.run(["git", "init", "-q"], cwd=root, check=True)
    return root


def command(tree, *options):
    return [sys.executable, str(SCRIPT), "--tree", str(tree), *options]


def mutants(tree, table, *options):
    """(exit status, standard output, standard error)"""
    (tree / "tests" / "mutants" / "table.txt").write_text(table)
    result = subprocess.run(command(tree, *options), capture_output=True, text=True, check=False,
                            timeout=scaled(120))
    return result.returncode, result.stdout, result.stderr


def test_every_fault_noticed(tree):
    status, out, err = mutants(tree, HEAD + KILLED)
    assert (status, err) == (0, "")
    assert out.startswith("1 faults: 1 noticed (0 by a hang), 0 survived, 0 equivalent")


def test_survivor_is_named_and_fails_the_run(tree):
    status, out, _ = mutants(tree, HEAD + KILLED + "\n" + SURVIVES)
    assert status == 1
    assert "tests/mutants/table.txt:7: src/limit.cpp: value > 10 -> value > 11: survived" in out
    assert "2 faults: 1 noticed (0 by a hang), 1 survived" in out


def test_equivalent_fault_is_not_planted(tree):
    status, out, _ = mutants(tree, HEAD + EQUIVALENT)
    assert status == 0
    assert "1 faults: 0 noticed (0 by a hang), 0 survived, 1 equivalent" in out


def test_endless_loop_counts_as_noticed(tree):
    status, out, _ = mutants(tree, HEAD + HANGS, "--hang-seconds", "1")
    assert status == 0
    assert "1 noticed (1 by a hang)" in out


@pytest.mark.parametrize("table, words", [
    (HEAD + "- value > 12\n+ value\n", "table.txt:4: the text occurs 0 times in src/limit.cpp, not once"),
    (HEAD + "- value\n+ 0\n", "table.txt:4: the text occurs 3 times in src/limit.cpp, not once"),
    ("file src/none.cpp\ntests unit A\n\n- a\n+ b\n", "table.txt:4: no file 'src/none.cpp'"),
    ("file src/limit.cpp\n\n" + KILLED, "table.txt:3: no tests are named for it"),
    ("file src/limit.cpp\ntests module A\n\n" + KILLED, "begins with neither unit nor integration"),
    (HEAD + "- ? 10\n+ ? 10\n", "table.txt:4: the replacement is the text itself"),
    (HEAD + "minus a\n", "table.txt:4: 'minus a' is none of"),
])
def test_wrong_table_is_refused_with_its_line(tree, table, words):
    status, out, err = mutants(tree, table)
    assert (status, out) == (2, "")
    assert words in err


def test_fault_that_does_not_build_is_an_error_of_the_table(tree):
    status, out, err = mutants(tree, HEAD + "- ? 10 : value\n+ ? 10\n")
    assert status == 2
    assert "1 did not build" in out
    assert "error" in err


def test_clean_tree_that_fails_is_no_result(tree):
    status, _, err = mutants(tree, HEAD.replace("Limited", "Wrong") + KILLED)
    assert status == 2
    assert "the clean tree fails" in err


def test_only_and_sample_choose(tree):
    table = HEAD + KILLED + "\n" + SURVIVES + "\n" + EQUIVALENT
    _, out, _ = mutants(tree, table, "--list")
    assert len(out.splitlines()) == 3
    _, out, _ = mutants(tree, table, "--list", "--only", "? 11")
    assert out.splitlines() == ["tests/mutants/table.txt:4: src/limit.cpp: ? 10 : value -> ? 11 : value"]
    _, out, _ = mutants(tree, table, "--list", "--sample", "2")
    assert len(out.splitlines()) == 2 and "equivalent" not in out
    status, _, err = mutants(tree, table, "--only", "nothing like it")
    assert status == 2 and "no fault" in err


def test_interrupt_leaves_no_fault_and_no_process(tree):
    copy = tree / "build" / "mutants" / "1" / "tree" / "src" / "limit.cpp"
    (tree / "tests" / "mutants" / "table.txt").write_text(HEAD + HANGS)
    with subprocess.Popen(command(tree), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as run:
        deadline = time.monotonic() + scaled(60)
        program = str(tree / "build" / "mutants" / "1" / "build" / "unit_tests")
        while not (copy.is_file() and copy.read_text() != SOURCE and pids_of(program)):
            assert time.monotonic() < deadline and run.poll() is None
            time.sleep(0.05)
        run.send_signal(signal.SIGINT)
        _, err = run.communicate(timeout=scaled(60))
    assert run.returncode == 130
    assert err == "mutants: interrupted\n"
    assert copy.read_text() == SOURCE
    assert pids_of(program) == []
    assert (tree / "src" / "limit.cpp").read_text() == SOURCE


def pids_of(program):
    """The processes that run a program."""
    found = []
    for entry in Path("/proc").iterdir():
        try:
            if entry.name.isdigit() and os.readlink(entry / "exe") == program:
                found.append(int(entry.name))
        except OSError:
            pass  # gone, or somebody else's
    return found


def test_table_of_this_tree_fits_it():
    """Every text occurs exactly once; and no fault is listed without tests or a reason."""
    result = subprocess.run(command(ROOT, "--list"), capture_output=True, text=True, check=False,
                            timeout=scaled(60))
    assert result.stderr == ""
    assert len(result.stdout.splitlines()) >= 150


LOWER_CMAKE = """cmake_minimum_required(VERSION 3.25)
project(lower LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(GTest REQUIRED)
file(GLOB files src/*/*.cpp tests/unit/*/*_test.cpp)
add_executable(unit_tests ${files})
target_compile_definitions(unit_tests PRIVATE TESSEL_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
target_include_directories(unit_tests PRIVATE src tests)
target_precompile_headers(unit_tests PRIVATE <gtest/gtest.h> <array> <cstring> <string> <vector>)
target_link_libraries(unit_tests PRIVATE GTest::gtest_main)
"""


def test_ten_faults_of_the_lower_floors_are_noticed(tmp_path):
    """Ten real ones, in a tree that is cut down to three folders, so that the build takes seconds."""
    folders = ("base", "soup", "wire")
    for folder in folders:
        shutil.copytree(ROOT / "src" / folder, tmp_path / "src" / folder)
        shutil.copytree(ROOT / "tests" / "unit" / folder, tmp_path / "tests" / "unit" / folder)
    for name in ("src/base/version.cpp", "tests/unit/base/version_test.cpp"):
        (tmp_path / name).unlink()  # made by the whole build
    for name in ("tests/support/hand_made.h", "tests/golden/natural_log.txt", ".gitignore"):
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(ROOT / name, tmp_path / name)
    (tmp_path / "CMakeLists.txt").write_text(LOWER_CMAKE)
    subprocess.run(["git", "init", "-q"], cwd=tmp_path, check=True)
    whole = (ROOT / "tests" / "mutants" / "table.txt").read_text().split("\nfile src/")
    (tmp_path / "tests" / "mutants").mkdir()
    (tmp_path / "tests" / "mutants" / "table.txt").write_text(
        "".join(f"\nfile src/{part}" for part in whole[1:] if part.split("/")[0] in folders))
    result = subprocess.run(command(tmp_path, "--sample", "10"), capture_output=True, text=True, check=False,
                            timeout=scaled(400))
    assert result.returncode == 0, result.stdout + result.stderr
    assert result.stdout.startswith("10 faults: 10 noticed")
