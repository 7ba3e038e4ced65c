"""The manual and the completions have the options that the programs have: no more, no fewer. The pages are
made from --help by man/make_pages.py; what is read here is what a user gets, the formatted page and the
shell's own answers."""

import gzip
import os
import re
import subprocess
from pathlib import Path

import pytest

from feed import program
from time_scale import scaled

SOURCE = Path(os.environ["TESSEL_SOURCE"])
MANUAL = Path(os.environ["TESSEL_BUILD"]) / "manual"
PROGRAMS = ["tessel"] + [name for path in sorted(SOURCE.glob("tools/*/tool.cmake"))
                         for name in re.findall(r"tessel_tool\((tessel\S+)", path.read_text())]
OPTION = r"(?<![\w-])--?[a-zA-Z][\w-]*"


def output(*command, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False,
                          timeout=scaled(60), **options)
    assert done.returncode == 0, (command, done.stderr)
    return done.stdout


def own_options(name, *command):
    """What the program itself says: option lines of its help and of its commands'; the feed's table."""
    if name == "tessel":
        return set(re.findall(r'\{"(--[\w-]+)", ', (SOURCE / "src/app/config.cpp").read_text()))
    text = output(program(name), *command, "--help")
    found = {each for line in re.findall(r"^  (-[\w,-]+)", text, re.M) for each in line.split(",")}
    for group in re.findall(r"^[\w ]*[Cc]ommands:\n((?:  .*\n)+)", text, re.M):
        for each in re.findall(r"^  (\w[\w-]*)", group, re.M):
            found |= own_options(name, *command, each)
    return found


def page(name, section=1):
    """The page as it is read, in lines wide enough for any option."""
    path = MANUAL / f"man/man{section}/{name}.{section}.gz"
    environment = {**os.environ, "MANWIDTH": "200", "MAN_KEEP_FORMATTING": "", "LC_ALL": "C.UTF-8"}
    return re.sub(r".\x08", "", output("man", "--warnings", "-l", path, env=environment))


def page_options(name):
    """The options that have an entry in the page: those at the beginning of a line."""
    lines = re.findall(r"^ {7}(?: {0,4})(-[\w-]+(?:, -[\w-]+)*)(?: [A-Z]\S*)?$", page(name), re.M)
    return {each for line in lines for each in line.split(", ")}


@pytest.mark.parametrize("name", PROGRAMS)
def test_the_page_has_the_programs_options(name):
    assert page_options(name) == own_options(name)


@pytest.mark.parametrize("name", PROGRAMS)
@pytest.mark.parametrize("shell", ["bash/", "zsh/_"])
def test_the_completion_has_the_programs_options(name, shell):
    path = MANUAL / f"{shell}{name}"
    output(shell.split("/")[0], "-n", path)
    text = path.read_text()
    if shell == "bash/":
        found = {word for words in re.findall(r"options='([^']*)'", text) for word in words.split()
                 if word.startswith("-")}
    else:
        found = set(re.findall(rf"'({OPTION})\[", text))
    assert found == own_options(name)


@pytest.mark.parametrize("path", sorted(MANUAL.glob("man/man*/*.gz")), ids=lambda path: path.name)
def test_a_page_is_formatted_without_a_warning(path):
    done = subprocess.run(["man", "--warnings", "-l", str(path)], capture_output=True, text=True, check=False,
                          env={**os.environ, "LC_ALL": "C.UTF-8"}, timeout=scaled(60))
    assert (done.returncode, done.stderr) == (0, "")
    assert "NAME" in done.stdout and "SEE ALSO" in done.stdout


def test_every_program_has_a_page_and_no_other():
    pages = {path.name for path in MANUAL.glob("man/man*/*")}
    assert pages == {f"{name}.1.gz" for name in PROGRAMS} | {"tessel-files.5.gz", "tessel.toml.5.gz"}


def test_pages_are_the_same_bytes_on_every_day():
    for path in MANUAL.glob("man/man*/*.gz"):
        assert path.read_bytes()[4:8] == bytes(4), "a gzip header without a time"
        assert '"2026-' in gzip.decompress(path.read_bytes()).decode()


def test_the_page_of_the_configuration_has_every_key():
    settings = (SOURCE / "tools/ctl/settings.cpp").read_text()
    keys = re.findall(r'^    \{"(feed|faults|scenario)", "(\w+)"', settings, re.M)
    assert len(keys) > 30
    text = page("tessel.toml", 5)
    for table in ("feed", "faults", "scenario"):
        section = text.split(f"TABLE [{table}]")[1].split("\nTABLE")[0].split("\nEXAMPLES")[0]
        shown = {word for line in re.findall(r"^ {7}([a-z_]+(?:, [a-z_]+)*)$", section, re.M)
                 for word in line.split(", ")}
        wanted = {key for of_table, key in keys if of_table == table}
        assert shown == wanted | ({"symbols_file"} if table == "feed" else set())


BASH = r"""
source "$1"; shift
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
function=$(complete -p "$1" | sed 's/.*-F \([^ ]*\) .*/\1/')
$function "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
printf '%s\n' "${COMPREPLY[@]}"
"""


def completed(tmp_path, *words):
    return output("bash", "-c", BASH, "bash", MANUAL / "bash" / words[0], *words, cwd=tmp_path).split()


def test_bash_completes_options_commands_and_files(tmp_path):
    (tmp_path / "day.toml").touch()
    assert completed(tmp_path, "tessel-listen", "--snap") == ["--snapshot", "--snapshot-timeout"]
    assert completed(tmp_path, "tesselctl", "ha") == ["halt"]
    assert completed(tmp_path, "tesselctl", "run", "--") == ["--help", "--config", "--dry-run"]
    assert completed(tmp_path, "tesselctl", "run", "--config", "d") == ["day.toml"]
    assert completed(tmp_path, "tessel-judge", "da") == ["day.toml"]
    assert completed(tmp_path, "tessel", "--mcast", "2") == []
