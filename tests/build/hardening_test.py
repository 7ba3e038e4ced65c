"""The shipped programs are hardened: what compiler and linker were asked for is found in the files."""

import os
import re
import subprocess
from pathlib import Path

import pytest

SOURCE = Path(os.environ["TESSEL_SOURCE"])
BIN = Path(os.environ["TESSEL_BIN"])
PROGRAMS = ["tessel"] + [name for path in sorted(SOURCE.glob("tools/*/tool.cmake"))
                         for name in re.findall(r"tessel_tool\((tessel\S+)", path.read_text())]


def readelf(option, path):
    command = ["readelf", "--wide", option, str(path)]
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def weaknesses(path):
    """What a file lacks; empty when nothing."""
    header, segments, dynamic = (readelf(option, path) for option in ("-h", "-l", "-d"))
    symbols = readelf("--dyn-syms", path)
    wanted = {
        "position-independent": re.search(r"Type:\s+DYN", header) and re.search(r"FLAGS_1.*\bPIE", dynamic),
        "read-only relocations": "GNU_RELRO" in segments,
        "bound at start": re.search(r"BIND_NOW|FLAGS_1.*\bNOW\b", dynamic),
        "no executable stack": re.search(r"GNU_STACK.* RW ", segments),
        "stack protector": "__stack_chk_fail" in symbols,
        "checked library calls": re.search(r"__\w+_chk\b", symbols),
        "library assertions": "__glibcxx_assert_fail" in symbols,
    }
    return [name for name, found in wanted.items() if not found]


@pytest.mark.parametrize("name", PROGRAMS)
def test_a_shipped_program_lacks_nothing(name):
    assert weaknesses(BIN / name) == []


def test_a_plain_program_lacks_everything_that_is_asked_for(tmp_path):
    """The check itself."""
    source, program = tmp_path / "plain.cpp", tmp_path / "plain"
    source.write_text("#include <cstdio>\n"
                      "int main(int n, char** v) { char a[9]; std::sprintf(a, v[0]); return n; }\n")
    flags = ["-O2", "-w", "-no-pie", "-fno-pie", "-U_FORTIFY_SOURCE", "-fno-stack-protector",
             "-z", "lazy", "-z", "norelro", "-z", "execstack"]
    subprocess.run([os.environ.get("CXX", "g++"), *flags, "-o", program, source], check=True)
    assert len(weaknesses(program)) == 7
