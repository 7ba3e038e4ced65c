"""The packages: no finding, and pages that speak of installed programs."""

import re
import shutil
import subprocess

import pytest

from package import SOURCE, packages, run
from samples import judge_samples
from time_scale import scaled


@pytest.fixture(name="made", scope="module")
def made_fixture():
    return packages()


@pytest.mark.skipif(shutil.which("lintian") is None, reason="lintian is not installed")
def test_lintian_finds_neither_errors_nor_warnings(made):
    debs = [str(path) for name, path in made.items() if name.endswith(".deb")]
    assert len(debs) == 3
    done = subprocess.run(["lintian", "--allow-root", "--fail-on", "error,warning", *debs],
                          capture_output=True, text=True, check=False, timeout=scaled(120))
    assert (done.returncode, done.stdout) == (0, "")


@pytest.fixture(name="unpacked", scope="module")
def unpacked_fixture(made, tmp_path_factory):
    folder = tmp_path_factory.mktemp("unpacked")
    run("dpkg", "-x", made["tessel.deb"], folder)
    return folder


def test_installed_pages_speak_of_installed_programs(unpacked):
    pages = list((unpacked / "usr/share/doc/tessel").rglob("*.md"))
    assert len(pages) > 15
    for page in pages:
        text = page.read_text()
        assert not re.search(r"build/release/tessel|scripts/run\b|<!-- in the source tree", text), page.name
        for link in re.findall(r"\]\(([^)\s#]+)", re.sub(r"```.*?```|`[^`\n]*`", "", text, flags=re.S)):
            assert re.match(r"[a-z]+:", link) or (page.parent / link).exists(), f"{page.name}: {link}"


def test_the_archive_has_the_same_programs(made, unpacked):
    names = run("tar", "-tzf", made["tessel.gz"]).split()
    programs = {path.name for path in (unpacked / "usr/bin").iterdir()}
    assert programs >= {"tessel", "tessel-listen", "tessel-judge", "tessel-certify", "tesselctl"}
    packed = {name.rsplit("/", 1)[1] for name in names if "/bin/" in name and not name.endswith("/")}
    assert packed == programs
    assert any(name.endswith("/libtessel-receiver.a") for name in names)


def test_the_package_has_the_cases_of_the_certification(unpacked):
    installed = unpacked / "usr/share/tessel/certify/cases"
    ours = SOURCE / "certify/cases"
    cases = {path.relative_to(ours) for path in ours.rglob("*.toml")}
    assert len(cases) > 60 and cases == {path.relative_to(installed) for path in installed.rglob("*.toml")}
    listed = run(unpacked / "usr/bin/tessel-certify", "--list")
    assert len(listed.splitlines()) == len(cases)


def test_the_python_package_has_its_plugin(made):
    names = run("dpkg", "-c", made["python3-tessel.deb"])
    assert "/usr/lib/python3/dist-packages/tessel/__init__.py" in names
    assert ".dist-info/entry_points.txt" in names


def test_the_package_has_the_samples_and_each_agrees_with_its_truth(unpacked, tmp_path):
    judge_samples(unpacked / "usr/share/tessel/samples", tmp_path / "lines.jsonl")


def test_no_two_packages_share_a_synopsis(made):
    debs = [path for name, path in made.items() if name.endswith(".deb")]
    synopses = {run("dpkg-deb", "-f", path, "Description").splitlines()[0] for path in debs}
    assert len(synopses) == len(debs) == 3
