"""The scripts on machines that are not as they expect. Each test makes a small machine of stubs, with a copy
of the scripts in it, and looks at what a script says and which commands it runs. Nothing is built."""

import os
import shutil
import subprocess
from pathlib import Path

import pytest
from time_scale import scaled

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))

# What the scripts use of a Debian machine before any package is installed.
TOOLS = """awk bash basename cat chmod cmp cp cut dirname env grep head id ln mkdir mktemp nproc pwd readlink
rm sed sleep stat tail touch tr true""".split()

# Each notes its command line in the file calls.
STUBS = {
    "dpkg-query": 'case " $MISSING " in *" ${!#} "*) exit 1 ;; esac; echo "install ok installed"',
    "apt-get": 'case "$* " in *"update "*) exit ${UPDATE_STATUS:-0} ;; *) exit ${INSTALL_STATUS:-0} ;; esac',
    "sudo": 'exec "$@"',
    # The only thing that it ever builds.
    "cmake": 'if [ "$1" = --build ]; then mkdir -p "$2"\n'
             'printf \'#!/bin/bash\\necho "tessel started: $*"\\n\' >"$2/tessel"; chmod +x "$2/tessel"; fi',
    "node": "true", "npm": "true", "debconf-set-selections": "cat >/dev/null",
    "ctest": 'echo "<testsuite/>"',
}

BASH_SCRIPTS = sorted(path.name for path in (ROOT / "scripts").iterdir()
                      if path.is_file() and b"/lib.sh" in path.read_bytes())


class Machine:
    """A tree with the scripts, and a search path with the stubs and a few tools of the real machine."""

    def __init__(self, folder):
        self.tree = folder / "the tree"
        self.bin = folder / "bin"
        self.calls = folder / "calls"
        self.home = folder / "home"
        for each in (self.tree / "tests" / "fuzz", self.bin, self.home):
            each.mkdir(parents=True)
        for name in ("scripts", "cmake"):
            shutil.copytree(ROOT / name, self.tree / name)
        (self.tree / "tests" / "fuzz" / "any_fuzz.cpp").touch()
        for name in TOOLS:
            (self.bin / name).symlink_to(shutil.which(name))
        for name, text in STUBS.items():
            self.stub(name, text)
        self.env = {"PATH": str(self.bin), "HOME": str(self.home), "TMPDIR": str(folder), "LC_ALL": "C"}

    def stub(self, name, text):
        path = self.bin / name
        path.unlink(missing_ok=True)
        path.write_text(f"#!/bin/bash\necho \"{name} $*\" >>'{self.calls}'\n{text}\n")
        path.chmod(0o755)

    def without(self, *names):
        for name in names:
            (self.bin / name).unlink()

    def run(self, command, *arguments, cwd=None, **env):
        """(exit status, standard output, lines of standard error)."""
        done = subprocess.run([str(command), *arguments], env={**self.env, **env}, cwd=cwd or self.tree,
                              text=True, capture_output=True, timeout=scaled(60), check=False,
                              stdin=subprocess.DEVNULL)
        return done.returncode, done.stdout, done.stderr.splitlines()

    def called(self):
        return self.calls.read_text().splitlines() if self.calls.exists() else []


@pytest.fixture(name="machine")
def _machine(tmp_path):
    return Machine(tmp_path)


def test_run_plainly_configures_builds_and_starts(machine):
    assert machine.run("scripts/run", "--quiet", "two words") == (
        0, "tessel started: --quiet two words\n", ["building build/release: tessel"])
    assert [line for line in machine.called() if line.startswith("cmake")] == [
        "cmake --preset release",
        f"cmake --build {machine.tree}/build/release -j {os.cpu_count()} --target tessel"]


def test_run_with_cdpath_set_goes_where_it_always_goes(machine, tmp_path):
    # A folder that cd would find first, and whose name it would print.
    (tmp_path / "elsewhere" / "scripts").mkdir(parents=True)
    status, output, _ = machine.run("scripts/run", CDPATH=f"{tmp_path}/elsewhere:{machine.tree}:/")
    assert (status, output) == (0, "tessel started: \n")
    assert (machine.tree / "build" / "release" / "configure.log").exists()
    assert sorted(each.name for each in (tmp_path / "elsewhere").iterdir()) == ["scripts"]


def test_run_through_symbolic_links_from_elsewhere(machine, tmp_path):
    links = tmp_path / "links"
    links.mkdir()
    (links / "first").symlink_to(machine.tree / "scripts" / "run")
    (links / "start-feed").symlink_to("first")
    status, output, _ = machine.run(links / "start-feed", "x", cwd=tmp_path)
    assert (status, output) == (0, "tessel started: x\n")
    machine.env["PATH"] += f":{links}"
    status, output, _ = machine.run("start-feed", "y", cwd="/")
    assert (status, output) == (0, "tessel started: y\n")


@pytest.mark.parametrize("name", BASH_SCRIPTS)
def test_every_script_finds_the_tree_through_a_link_with_cdpath_set(machine, tmp_path, name):
    """Each wants a package first: that it says so shows that it has found its library, and where."""
    link = tmp_path / "a link"
    link.symlink_to(machine.tree / "scripts" / name)
    machine.without("apt-get")
    status, output, lines = machine.run(link, cwd=tmp_path, MISSING="g++", CDPATH=str(machine.tree))
    assert (status, output) == (1, "")
    assert len(lines) == 1 and lines[0].startswith("missing: g++"), lines


def test_every_bash_script_is_found_by_the_tests():
    assert {"bench", "demo", "fuzz", "lint", "run", "soak", "test"} <= set(BASH_SCRIPTS)


def make_foreign(path):
    """Gives a folder to another user; without the right to, puts one of the system's in its place."""
    if os.geteuid() == 0:
        os.chown(path, 12345, 12345)
    else:
        path.rmdir()
        path.symlink_to("/usr")


@pytest.mark.parametrize("folder", ["build", "build/release"])
def test_build_folder_of_another_user_one_line_and_no_build(machine, folder):
    (machine.tree / folder).mkdir(parents=True)
    make_foreign(machine.tree / folder)
    status, output, lines = machine.run("scripts/run")
    assert (status, output) == (1, "")
    assert len(lines) == 1
    assert lines[0].startswith(f"{machine.tree / folder} belongs to ")
    assert lines[0].endswith(", not to you: remove it, or build as that user")
    assert not any(line.startswith("cmake") for line in machine.called())


def test_neither_root_nor_sudo_says_what_to_install(machine):
    machine.without("sudo")
    machine.stub("id", "echo 1000")
    status, output, lines = machine.run("scripts/run", MISSING="cmake ninja-build")
    assert (status, output) == (1, "")
    assert lines == ["missing: cmake ninja-build; neither root nor sudo here: "
                     "have root run apt-get install cmake ninja-build"]
    assert not any(line.startswith(("apt-get", "cmake")) for line in machine.called())


def test_neither_root_nor_sudo_but_nothing_missing_builds(machine):
    machine.without("sudo")
    machine.stub("id", "echo 1000")
    assert machine.run("scripts/run")[:2] == (0, "tessel started: \n")


def test_user_with_sudo_installs_through_it(machine):
    machine.stub("id", "echo 1000")
    status, _, lines = machine.run("scripts/run", MISSING="g++")
    assert status == 0
    assert lines[0] == "installing with apt: g++"
    assert "sudo apt-get -q -y update" in machine.called()
    assert any(line.startswith("sudo env DEBIAN_FRONTEND=noninteractive apt-get -q -y install")
               for line in machine.called())


def test_one_broken_package_source_is_reported_and_the_rest_is_used(machine):
    status, output, lines = machine.run("scripts/run", MISSING="g++", UPDATE_STATUS="100")
    assert (status, output) == (0, "tessel started: \n")
    assert "a package source could not be read; going on with the others" in lines
    assert any("install --no-install-recommends g++" in line for line in machine.called())


def test_package_that_cannot_be_installed_is_named_and_nothing_is_built(machine):
    status, output, lines = machine.run("scripts/run", MISSING="g++", UPDATE_STATUS="100",
                                        INSTALL_STATUS="100")
    assert (status, output) == (1, "")
    assert lines[-1] == "not installed: g++; see apt's messages above, then install them by hand"
    assert not any(line.startswith("cmake") for line in machine.called())


@pytest.mark.parametrize("scale, seconds", [("1", 240), ("3", 720), ("2.5", 720), ("0.1", 240), ("99", 2400)])
def test_time_limits_of_the_test_run_follow_the_scale(machine, scale, seconds):
    script = f"source '{machine.tree}/scripts/lib.sh'; run_ctest release"
    machine.run(machine.bin / "bash", "-c", script, TESSEL_TIME_SCALE=scale)
    (call,) = [line for line in machine.called() if line.startswith("ctest")]
    assert f"--timeout {seconds} " in call


def test_no_entry_has_a_time_limit_of_its_own():
    """It would win over the one that follows the scale."""
    for path in [ROOT / "CMakeLists.txt", *(ROOT / "cmake").glob("*.cmake")]:
        assert "TIMEOUT" not in path.read_text().replace("DART_TESTING_TIMEOUT", ""), path
