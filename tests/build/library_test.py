"""The installed libraries: public headers that compile alone, and examples of a foreign project that work."""

import json
import os
import re
import subprocess
from pathlib import Path

import pytest
from feed import Feed, Process, program

SOURCE = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
BUILD = Path(os.environ["TESSEL_BUILD"])
MESSAGES = 3000


def run(*words, cwd=None, env=None):
    done = subprocess.run([str(word) for word in words], cwd=cwd, env=env, capture_output=True, text=True,
                          timeout=600, check=False)
    assert done.returncode == 0, f"{words}\n{done.stdout[-3000:]}\n{done.stderr[-3000:]}"
    return done.stdout


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    """An empty folder that the libraries were installed into."""
    folder = tmp_path_factory.mktemp("prefix")
    run("cmake", "--install", BUILD, "--component", "development", "--prefix", folder)
    return folder


@pytest.fixture(scope="module")
def examples(prefix, tmp_path_factory):
    """The folder of the example programs, built by their own project against the installed library."""
    folder = tmp_path_factory.mktemp("examples")
    run("cmake", "-S", SOURCE / "examples" / "cpp", "-B", folder, f"-DCMAKE_PREFIX_PATH={prefix}",
        "-DCMAKE_BUILD_TYPE=Debug")
    run("cmake", "--build", folder, "-j", "2")
    return folder


def headers_of(prefix):
    found = sorted((prefix / "include" / "tessel").rglob("*.h"))
    assert len(found) > 10
    return found


def test_public_headers_include_only_public_headers(prefix):
    for header in headers_of(prefix):
        assert not re.findall(r'#include "', header.read_text()), header
        for target in re.findall(r"#include <(tessel/[^>]+)>", header.read_text()):
            assert (prefix / "include" / target).exists(), f"{header.name} includes {target}"


def test_each_public_header_compiles_alone(prefix, tmp_path):
    for number, header in enumerate(headers_of(prefix)):
        (tmp_path / f"{number}.cpp").write_text(f"#include <{header.relative_to(prefix / 'include')}>\n")
    run("g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", f"-I{prefix / 'include'}",
        *sorted(tmp_path.glob("*.cpp")))


def test_minimal_receiver_recovers_what_a_damaged_feed_loses(examples, tmp_path):
    feed = Feed(tmp_path, "--drop-every", "6", "--dup-every", "5", "--reorder-every", "7", interval_ms=10)
    command = ["stdbuf", "-oL", examples / "minimal_receiver", feed.group, feed.port,
               f"127.0.0.1:{feed.retrans_port}", MESSAGES]
    output = tmp_path / "output.jsonl"
    with output.open("wb") as file, Process(command, stdout=file) as child, feed.start():
        feed.wait_for_messages(MESSAGES + 100)
        assert child.wait() == 0
        assert child.stderr == []
    done = subprocess.run([program("tessel-judge"), "--early", feed.truth_path, output], capture_output=True,
                          text=True, timeout=120, check=False)
    lines = output.read_text().splitlines()
    assert len(lines) > MESSAGES / 2
    # It writes quotes only, so the judge misses the other lines; what is there agrees.
    assert re.search(r"mismatched +0\n", done.stdout), done.stdout
    assert re.search(r"unexpected +0\n", done.stdout), done.stdout
    assert re.search(rf"matched +{len(lines):,}\n", done.stdout), done.stdout


def test_decode_file_names_every_field_and_reports_what_is_no_message(examples, tmp_path):
    file = tmp_path / "messages.hex"
    start_of_day = "31434945" + "20" + "00" * 24
    file.write_text(start_of_day + "\n" + "zz\n" + "3143\n")
    done = subprocess.run([examples / "decode_file", file], capture_output=True, text=True, timeout=60,
                          check=False)
    assert done.returncode == 1
    assert '"kind":"start_of_day"' in done.stdout
    assert ":2: not hexadecimal" in done.stderr and ":3: 2 bytes are less than a header" in done.stderr


def test_decode_file_reads_every_vector(examples):
    for file in sorted((SOURCE / "vectors").glob("*.jsonl")):
        decoded = [json.loads(line) for line in run(examples / "decode_file", file).splitlines()]
        vectors = [json.loads(line)["message"] for line in file.read_text().splitlines()]
        assert [{key: value for key, value in each.items() if key != "seq"} for each in decoded] == vectors


def test_handmade_message_decodes_to_what_was_put_in(examples):
    hexadecimal, text = run(examples / "handmade_message").splitlines()
    message = json.loads(text)
    assert len(hexadecimal) == 2 * 52
    assert (message["kind"], message["symbol"], message["market_center"]) == ("quote_short", "AAPL", "Q")
    assert (message["bid"], message["bid_size"], message["ask"]) == (189_970_000, 100, 190_030_000)


def test_pkg_config_names_what_a_compiler_needs(prefix, tmp_path):
    environment = {**os.environ, "PKG_CONFIG_PATH": str(next(prefix.rglob("pkgconfig")))}
    flags = run("pkg-config", "--define-variable", f"prefix={prefix}", "--cflags", "--libs",
                "tessel-receiver", env=environment).split()
    libraries = [f"-L{path.parent}" for path in prefix.rglob("libtessel-receiver.a")]
    run("clang++", SOURCE / "examples" / "cpp" / "minimal_receiver.cpp", "-o", tmp_path / "receiver",
        *libraries, *flags, f"-I{prefix / 'include'}")
    assert (tmp_path / "receiver").exists()


def test_minimal_receiver_stays_minimal():
    lines = (SOURCE / "examples" / "cpp" / "minimal_receiver.cpp").read_text().splitlines()
    assert len(lines) < 80
