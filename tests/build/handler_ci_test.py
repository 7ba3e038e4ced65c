"""Handlers of others in CI: two foreign projects in an empty Debian with nothing of ours but the packages.
Each is green with a good handler and red with a broken one, by the commands of docs/ci.md."""

import re

import pytest

from install_test import why_not
from booted import in_root
from package import SOURCE, copied_packages, unpacked_root

pytestmark = pytest.mark.skipif(bool(why_not()), reason=f"skipped: {why_not()}")

PAGE = (SOURCE / "docs" / "ci.md").read_text()
CI_PACKAGES = ["cmake", "g++", "libgtest-dev", "make", "python3-pytest"]


def github_step(name):
    """The commands of a step of the page's GitHub job."""
    found = re.search(rf"- name: {name}\n(?: +if: .*\n)? +run: \|\n((?: {{10}}.*\n)+)", PAGE)
    return re.sub(r"^ {10}", "", found.group(1), flags=re.M)


def gitlab_script(job):
    """The commands of a job of the page's GitLab file; a line that is indented further goes on."""
    found = re.search(rf"^{job}:\n(?:  .*\n)*?  script:\n((?:    .*\n)+)", PAGE, re.M)
    return re.sub(r"^    - ", "", re.sub(r"\n      ", " ", found.group(1)), flags=re.M)


@pytest.fixture(name="root", scope="module")
def root_fixture(tmp_path_factory):
    yield from unpacked_root(tmp_path_factory, "ci", CI_PACKAGES)


@pytest.fixture(name="files")
def files_fixture(tmp_path):
    return copied_packages(tmp_path / "files")


INSTALL = r"""
dpkg -i /test/tessel.deb /test/libtessel-dev.deb /test/python3-tessel.deb >/tmp/dpkg.log 2>&1 ||
    { cat /tmp/dpkg.log; exit 1; }
cp -r /usr/share/doc/tessel/examples /tmp/examples
# outcome NAME: of the commands on standard input, run as a job of a CI is: up to the first that fails.
outcome() {
    cat >/tmp/job
    if sh -e /tmp/job >/tmp/job.log 2>&1; then echo "$1: green"; else echo "$1: red"; fi
    sed "s/^/$1| /" /tmp/job.log
}
"""


def outcomes(root, files, tmp_path, script):
    (files / "run").write_text(INSTALL + script)
    done = in_root(root, tmp_path / "overlay", files, seconds=300)
    assert done.returncode == 0, (done.stdout[-4000:], done.stderr[-4000:])
    return dict(re.findall(r"^([\w-]+): (green|red|[\d]+)$", done.stdout, re.M)), done.stdout


def test_a_project_with_cmake(root, files, tmp_path):
    broken = github_step("test").replace("cmake -B build", "cmake -B build -DBROKEN=ON")
    assert "BROKEN" in broken
    found, text = outcomes(root, files, tmp_path, f"""
cd /tmp/examples/certified/cmake
outcome good <<'JOB'
{github_step("test")}JOB
export GITHUB_STEP_SUMMARY=/tmp/summary
outcome summary <<'JOB'
{github_step("summary")}JOB
grep -c 'cases pass' /tmp/summary | sed 's/^/heads: /'
ls build/tessel-certify/certify
rm -rf build
outcome broken <<'JOB'
{broken}JOB
""")
    assert found == {"good": "green", "summary": "green", "heads": "1", "broken": "red"}, text[-6000:]
    assert {"junit.xml", "results.json", "scorecard.html"} <= set(text.splitlines())
    # It is the handler that makes it red, in the unit test and in the catalog.
    assert re.search(r"broken\|.*certify \(Failed\)", text) and "broken| FAIL   loss/one_packet" in text
    assert re.search(r"broken\|.*handler_test \(Failed\)", text)


def test_a_project_with_pytest_and_one_with_the_program_alone(root, files, tmp_path):
    found, text = outcomes(root, files, tmp_path, f"""
cd /tmp/examples/certified/pytest
export HANDLER="python3 /tmp/examples/python/handler.py"
outcome good <<'JOB'
{gitlab_script("pytest")}JOB
sed 's/--retrans {{retrans}}/--retrans 127.0.0.1:9/' -i test_handler.py
outcome broken <<'JOB'
{gitlab_script("pytest")}JOB
find artifacts -name truth.jsonl | wc -l | sed 's/^/kept: /'
arguments="--group {{group}} --port {{port}} --iface {{iface}} --session {{session}} --out {{out}}"
arguments="$arguments --snapshot {{snapshot}} {{late}}"
export HANDLER="python3 /tmp/examples/python/handler.py --retrans {{retrans}} $arguments"
outcome program-good <<'JOB'
{gitlab_script("certify")}JOB
export HANDLER="python3 /tmp/examples/python/handler.py --retrans 127.0.0.1:9 $arguments"
outcome program-broken <<'JOB'
{gitlab_script("certify")}JOB
""")
    assert found == {"good": "green", "broken": "red", "kept": "1", "program-good": "green",
                     "program-broken": "red"}, text[-6000:]
    assert "broken| FAILED test_handler.py::test_lost_packets_are_recovered" in text, text[-6000:]
    assert "program-broken| FAIL   loss/one_packet" in text
