"""What a configure chooses: nothing is compiled, only the commands that a build would run are read."""

import os
import re
import shlex
import subprocess
from pathlib import Path

import pytest
from time_scale import scaled

SOURCE = Path(os.environ["TESSEL_SOURCE"])
# What a caller's shell may hold for a compiler is not part of any of these.
ENVIRONMENT = {name: value for name, value in os.environ.items()
               if name not in ("CXXFLAGS", "CPPFLAGS", "LDFLAGS", "CMAKE_BUILD_TYPE", "CMAKE_GENERATOR")}
PACKAGES = re.findall(r"^tessel_package\((\w+)", (SOURCE / "cmake/packages.cmake").read_text(), re.MULTILINE)


def run(*words):
    done = subprocess.run([str(word) for word in words], cwd=SOURCE, env={**ENVIRONMENT, "CXX": "g++"},
                          capture_output=True, text=True, timeout=scaled(120), check=False)
    assert done.returncode == 0, f"{words}\n{done.stdout[-3000:]}\n{done.stderr[-3000:]}"
    return done


def configure(folder, *options):
    """What cmake says on standard error."""
    return run("cmake", "-G", "Ninja", "-B", folder, *options).stderr


def commands(folder, target="tessel"):
    """The command lines that build a target, the folder's name taken out."""
    lines = run("ninja", "-C", folder, "-t", "commands", target).stdout.replace(str(folder), "BUILD")
    return [line for line in lines.splitlines() if "version.cmake" not in line]


def compilations(folder, target="tessel"):
    """The words of each command that compiles a file of ours."""
    found = [shlex.split(line) for line in commands(folder, target) if " -c " in line]
    assert len(found) > 40
    return found


@pytest.fixture(name="plain", scope="module")
def plain_folder(tmp_path_factory):
    folder = tmp_path_factory.mktemp("plain")
    configure(folder)
    return folder


def test_without_a_preset_the_program_is_built_as_the_release_preset_builds_it(plain, tmp_path):
    configure(tmp_path / "release", "--preset", "release")
    released = commands(tmp_path / "release")
    assert any(" -Werror " in line for line in released)
    assert [line.replace(" -Werror", "") for line in released] == commands(plain)


def test_without_a_preset_the_program_is_optimized_and_linked_as_a_whole(plain):
    for words in compilations(plain):
        levels = [word for word in words if word.startswith("-O")]
        assert levels[-1] in ("-O3", "-O2") and "-Werror" not in words, words
    link = commands(plain)[-1]
    assert " -flto=auto " in link and " -O3 " in link and " -pie " in link, link


def test_flags_of_a_packager_are_the_last_word(tmp_path):
    """As distributions give them: a level, debug information, and a level of checked calls."""
    given = "-g3 -O1 -fstack-clash-protection -D_FORTIFY_SOURCE=3"
    configure(tmp_path, f"-DCMAKE_CXX_FLAGS={given}")
    for words in compilations(tmp_path):
        assert [word for word in words if word.startswith("-O")] == ["-O1"], words
        assert [word for word in words if re.match("-g[0-9]?$", word)] == ["-g3"], words
        assert [word for word in words if "FORTIFY" in word] == ["-D_FORTIFY_SOURCE=3"], words
        assert "-fstack-clash-protection" in words
    link = shlex.split(commands(tmp_path)[-1])
    assert "-O1" in link and "-O3" not in link


def test_flags_of_a_build_type_given_by_a_packager_are_the_last_word(tmp_path):
    configure(tmp_path, "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-Os")
    for words in compilations(tmp_path):
        assert [word for word in words if word.startswith("-O")] == ["-Os"], words


def test_without_the_tools_libraries_the_tests_are_there_and_each_missing_tool_is_a_warning(tmp_path):
    said = configure(tmp_path, *(f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=ON" for name in PACKAGES))
    warnings = " ".join(said.split())
    assert "CMake Warning" in said
    assert len(PACKAGES) > 5
    for tool in ("tessel-listen", "tessel-judge", "tesselctl", "tessel-capture"):
        assert re.search(rf"{tool} is left out: [^:]*lib\S+-dev", warnings), said
    run("ninja", "-C", tmp_path, "-n", "tessel", "unit_tests", "integration_tests", "fuzz_corpus")
    targets = run("ninja", "-C", tmp_path, "-t", "targets", "all").stdout
    assert "unit_tests:" in targets and "tessel-listen:" not in targets and "listen_tests:" not in targets


def test_where_everything_is_required_a_missing_package_is_an_error(tmp_path):
    done = subprocess.run(["cmake", "-G", "Ninja", "-B", str(tmp_path), "-DTESSEL_REQUIRE_ALL=ON",
                           "-DCMAKE_DISABLE_FIND_PACKAGE_fmt=ON"], cwd=SOURCE, env=ENVIRONMENT,
                          capture_output=True, text=True, timeout=scaled(120), check=False)
    assert done.returncode != 0
    assert "libfmt-dev not found" in " ".join(done.stderr.split())
