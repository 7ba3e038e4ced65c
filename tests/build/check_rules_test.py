"""Each project rule finds a violation planted for it, and leaves the honest form alone."""

import importlib.util
import os
import subprocess
import sys
from importlib.machinery import SourceFileLoader
from pathlib import Path

import pytest

ROOT = Path(os.environ.get("TESSEL_SOURCE", Path(__file__).resolve().parents[2]))
CHECKER = ROOT / "scripts" / "check-rules"

loader = SourceFileLoader("check_rules", str(CHECKER))
rules = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
loader.exec_module(rules)


def findings_of(folder, files):
    """Writes a small tree and returns what the checker finds in it."""
    for name, text in files.items():
        path = folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    return rules.check_tree(folder)[0]


def planted(name, text, *words):
    """A row of the table below: the file, its text, and words that the one finding must hold."""
    return pytest.param(name, text, words, id=f"{words[0].replace(' ', '-')}:{Path(name).name}")


PLANTED = [
    planted("tools/listen/long.cpp", "// " + "x" * 108 + "\n", "line length", "111 columns"),
    planted("scripts/long", "#!/bin/sh\n# " + "x" * 109 + "\n", "line length", "111 columns"),
    planted("tools/listen/blank.cpp", "int a = 1; \n", "trailing blank"),
    planted("README.md", "text \n", "trailing blank"),
    planted("tools/listen/tab.cpp", "\tint a = 1;\n", "tab"),
    planted("docs/notes.md", "TO" + "DO: later\n", "leftover"),
    planted("src/app/main.cpp", "// FIX" + "ME\n", "leftover"),
    planted("docs/notes.md", "as the spec" + "ification says\n", "working text"),
    planted("docs/notes.md", "see Pa" + "rt 4.3\n", "working text"),
    planted("docs/notes.md", "closes iss" + "ue 12\n", "working text"),
    planted("docs/notes.md", "see settled" + ".md\n", "working text"),
    planted("scripts/run", "#!/bin/sh\ncd /wo" + "rk/main\n", "machine path"),
    planted("docs/notes.md", "in /ho" + "me/someone/x\n", "machine path"),
    planted("docs/notes.md", "in /ro" + "ot/x\n", "machine path"),
    planted("src/app/main.cpp", "int a = rand" + "();\n", "banned", "base/random"),
    planted("src/app/main.cpp", "std::uniform_int_distribution<int> d;\n", "banned", "base/random"),
    planted("src/app/main.cpp", "std::random_device d;\n", "banned", "seed"),
    planted("src/app/main.cpp", "struct A { virtual int f(); };\n", "banned", "free functions"),
    planted("src/app/main.cpp", "auto* p = dynamic_cast<int*>(q);\n", "banned", "free functions"),
    planted("src/app/main.cpp", "auto t = std::chrono::system_clock::now();\n", "banned", "base/clock"),
    planted("src/app/main.cpp", "auto t = std::chrono::steady_clock::now();\n", "banned", "base/clock"),
    planted("src/app/main.cpp", "clock_gettime(0, &t);\n", "banned", "base/clock"),
    planted("src/app/main.cpp", "gettimeofday(&t, nullptr);\n", "banned", "base/clock"),
    planted("src/app/main.cpp", "std::this_thread::yield();\n", "banned", "base/clock"),
    planted("src/app/main.cpp", "usleep(1);\n", "banned", "base/clock"),
    planted("src/app/main.cpp", "nanosleep(&t, nullptr);\n", "banned", "base/clock"),
    planted("src/app/main.cpp", "auto t = std::time(nullptr);\n", "banned", "base/clock"),
    planted("src/wire/a.h", '#include "market/instrument.h"\n', "include of market/instrument.h", "base"),
    planted("src/market/a.h", '#include "app/feed.h"\n', "include of app/feed.h", "base wire mold soup"),
    planted("src/base/a.h", '#include "soup/soup_packet.h"\n', "include of soup/soup_packet.h", "nothing"),
    planted("src/output/a.h", '#include "engine/quotes.h"\n', "include of engine/quotes.h"),
    planted("src/snapshot/a.h", '#include "app/feed.h"\n', "include of app/feed.h"),
    planted("src/mold/a.h", '#include "wire/message_writer.h"\n', "include of wire/message_writer.h"),
    planted("src/market/b.h", '#include "receiver/market_state.h"\n', "include of receiver/market_state.h"),
    planted("src/app/feed.h", '#include "config.h"\n', "include of config.h", "from the root"),
    planted("src/app/a.h", '#include "listen/listener.h"\n', "include of listen/listener.h", "FLOORS"),
    planted("src/wire/message_decoder.h", '#include "wire/trade_messages.h"\n', "include of wire/trade",
            "no encoder"),
    planted("tests/unit/wire/a_test.cpp", "// text\n", "no source", "src/wire/a.cpp"),
    planted("tests/unit/app/main.cpp", "// text\n", "no test file name"),
    planted("tests/loose.cpp", "// text\n", "in no target"),
    planted("src/app/main.cpp", "int main() {\n" + "    f();\n" * 69 + "}\n", "long function",
            "71 lines"),
    planted("tests/e2e/a_test.py", "a = 1\n" * 500, "long file of tests", "500 lines"),
    planted("tests/support/a.cpp", "// text\n" * 612, "long file of tests", "612 lines"),
    planted("tests/integration/a_test.cpp", "TEST(Feed, StartsAtOne) {\n}\n", "test name StartsAtOne",
            "Situation_Expectation"),
    planted("tests/integration/b_test.cpp", "TEST_P(\n    Feed, StartsAtOne) {\n}\n",
            "test name StartsAtOne"),
]


@pytest.mark.parametrize("name, text, words", PLANTED)
def test_a_planted_violation_is_found_once(tmp_path, name, text, words):
    findings = findings_of(tmp_path, {name: text})
    assert len(findings) == 1, findings
    assert findings[0].startswith(name + ":")
    for word in words:
        assert word in findings[0]


def test_a_source_without_a_unit_test_is_found(tmp_path):
    findings = findings_of(tmp_path, {"src/wire/a.cpp": "// text\n"})
    assert findings == ["src/wire/a.cpp:1: no unit test: add tests/unit/wire/a_test.cpp"]


def test_a_second_part_of_a_unit_test_needs_the_first_ones_source(tmp_path):
    findings = findings_of(tmp_path, {"src/wire/a_b.cpp": "// text\n",
                                      "tests/unit/wire/a_b_test.cpp": "// text\n",
                                      "tests/unit/wire/a_b_part_two_test.cpp": "// text\n",
                                      "tests/unit/wire/a_part_test.cpp": "// text\n"})
    assert findings == ["tests/unit/wire/a_part_test.cpp:1: no source: the file it tests would be "
                        "src/wire/a_part.cpp"]


def test_a_circle_of_headers_is_found(tmp_path):
    findings = findings_of(tmp_path, {"src/wire/a.h": '#include "wire/b.h"\n',
                                      "src/wire/b.h": '#include "wire/a.h"\n'})
    assert findings == ["src/wire/a.h:1: include circle: src/wire/a.h -> src/wire/b.h -> src/wire/a.h"]


HONEST = {
    "src/base/clock.cpp": "// reads the clocks\nauto a = std::chrono::system_clock::now();\n",
    "tests/unit/base/clock_test.cpp": "TEST(Clock, FirstReading_IsTheSystems) {\n}\n" + "// text\n" * 497,
    "tests/conftest.py": "a = 1\n" * 499,
    "src/app/main.cpp": ('#include "engine/quotes.h"\n'
                         "// rand() and virtual are only spoken of here\n"
                         'const char* text = "virtual rand() system_clock";\n'
                         "int operand(int a);\nint b = operand(1);\nint next_time(int a);\n"
                         "int main() {\n" + "    f();\n" * 68 + "}\n"),
    "src/engine/quotes.h": '#include "engine/tick.h"\n#include "wire/writer.h"\n#include "base/number.h"\n',
    "src/output/book_file.h": '#include "market/instrument.h"\n#include "market/nbbo.h"\n',
    "src/snapshot/spin.h": '#include "engine/quotes.h"\n#include "mold/publisher.h"\n',
    "src/receiver/market.h": '#include "wire/message_decoder.h"\n#include "mold/packet.h"\n',
    "tools/listen/a.cpp": '#include "listen/decoder.h"\n// ' + "x" * 107 + "\n",
    "tests/fuzz/corpus/x/1": "tab\tand blank \n",
    "README.md": "The part of the " + "x" * 200 + "\n",
}


def test_an_honest_tree_has_no_findings(tmp_path):
    assert findings_of(tmp_path, HONEST) == []


def run_checker(folder):
    command = [sys.executable, str(CHECKER), str(folder)]
    return subprocess.run(command, capture_output=True, text=True, check=False)


def test_files_that_git_ignores_are_left_alone(tmp_path):
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    findings = findings_of(tmp_path, {".gitignore": "build/\n", "build/x.cpp": "\tint a; \n"})
    assert findings == []


def test_the_longest_functions_are_reported_longest_first(tmp_path):
    findings_of(tmp_path, {"src/wire/a.h": "inline int g() {\n    return 1;\n}\n\n"
                                          "struct A {\n    int f() {\n        int a = 1;\n"
                                          "        return a;\n    }\n};\n"})
    result = run_checker(tmp_path)
    assert result.returncode == 0, result.stdout
    assert result.stdout.splitlines() == ["longest functions:", "     4 lines  f  src/wire/a.h:6",
                                          "     3 lines  g  src/wire/a.h:1", "project rules: 0 findings"]


def test_findings_end_the_checker_with_status_1(tmp_path):
    findings_of(tmp_path, {"README.md": "text \n"})
    result = run_checker(tmp_path)
    assert result.returncode == 1
    assert "README.md:1: trailing blank" in result.stdout


def test_this_tree_has_no_findings():
    assert rules.check_tree(ROOT)[0] == []
