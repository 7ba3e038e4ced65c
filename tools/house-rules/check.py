#!/usr/bin/env python3
"""House rules that no compiler checks: check.py [FOLDER]

Walks the tree (the files git knows or would add; everything when there is no git) and prints one line a
finding, "file:line: rule: what to do instead". The exit status is 0 when there is none, 1 otherwise. The ten
longest functions are reported in any case; those above the limit that are not listed as known are findings.

Words that are banned are put together from pieces here, so that this file does not find itself.
"""

import argparse
import re
import subprocess
import sys
from pathlib import Path

LINE_LENGTH = 110
FUNCTION_LINES = 70

CODE = {".cpp", ".h", ".py", ".sh", ".lua", ".js", ".mjs"}
# Files whose bytes are data: corpora, golden vectors, captures, lock files.
DATA = re.compile(r"(^|/)(corpus|golden|node_modules|captures)/|package-lock\.json$"
                  r"|\.(png|pcap|pcapng|bin|hex)$")

# Calls that are banned in src/, each with what replaces it.
BANNED = [
    (r"\brand\s*\(", "draw from market/random"),
    (r"_distribution\b", "draw with market/random: library distributions differ between compilers"),
    (r"\brandom_device\b", "seed from the options: a run must be repeatable"),
    (r"\bvirtual\b", "plain records and free functions"),
    (r"\bdynamic_cast\b", "plain records and free functions"),
]
CLOCKS = (r"\b(system_clock|steady_clock|high_resolution_clock|clock_gettime|gettimeofday|usleep|nanosleep)\b"
          r"|\bstd::this_thread\b|(?<![\w.:>])(?:std::|::)?time\s*\(\s*(?:nullptr|NULL|0|&)")
CLOCK_FILES = {"src/app/clock.h", "src/app/clock.cpp"}

LEFTOVERS = re.compile("|".join([r"\bTO" + r"DO\b", r"\bFIX" + r"ME\b", r"\bXX" + r"X\b", r"\bHA" + r"CK\b",
                                 r"\bDO NOT " + r"COMMIT\b"]))
WORKING_TEXTS = re.compile("|".join([r"\b(spec" + r"ification|spec" + r"\.md|settled" + r"\.md)\b",
                                     r"\bPa" + r"rt [0-9]\.[0-9]", r"\biss" + r"ue [0-9]+\b",
                                     r"\bhelp" + r"er session\b", r"\bPo" + r"int [0-9]+ of\b"]))
MACHINE_PATHS = re.compile("|".join(["/wo" + "rk/", "/fa" + "rm/", "/ro" + r"ot\b/", "/ho" + r"me/[a-z]+/"]))

# Which room may include which; None means anything in src/. Files not listed fall back to their room.
FILE_MAY_INCLUDE = {
    "app/clock": [], "app/number": [], "app/scenario": ["app/number"], "app/config": ["app/number"],
    "transport/mold_publisher": ["app/clock", "transport/fault_injector", "transport/retrans_store",
                                 "transport/mold_bytes"],
    "transport/fault_injector": ["app/clock"],
    "transport/retrans_store": ["app/clock", "transport/mold_bytes"],
    "transport/retransmission": ["app/clock", "transport/mold_publisher", "transport/retrans_store",
                                 "transport/fault_injector", "transport/mold_bytes"],
}
ROOM_MAY_INCLUDE = {
    "msg": ["msg/"],
    "market": ["market/", "msg/", "transport/mold_publisher", "out/truth_log", "app/scenario", "app/clock",
               "app/number"],
    "out": ["out/", "market/instrument", "market/nbbo", "app/clock", "app/number"],
    "transport": ["transport/", "market/", "msg/", "app/clock", "app/scenario", "out/truth_log"],
    "app": None,
}

# Sources without a unit test of their name, and why.
UNPAIRED_SOURCES = {
    "src/app/main.cpp": "a few lines; every whole-process test runs it",
    "src/app/feed.cpp": "start-up, loop and stop are tested by whole-process tests in tests/e2e",
}
# Unit tests that belong to no one source, and why.
UNPAIRED_TESTS = {}

# Where the build looks for C++ files; one anywhere else is compiled by nothing.
BUILT = re.compile(r"src/\w+/\w+\.cpp|tools/(listen|judge)/\w+\.cpp|tests/unit/\w+/\w+\.cpp"
                   r"|tests/runs/\w+_test\.cpp|tests/tools/\w+/\w+_test\.cpp"
                   r"|tests/support/(\w+/)?\w+\.cpp|tests/simulator/\w+\.cpp"
                   r"|tests/fuzz/(\w+_fuzz|corpus_main)\.cpp|tests/checks/\w+/\w+\.cpp|bench/\w+_bench\.cpp"
                   r"|bench/(throughput|profile)/\w+\.cpp")

# Functions above the limit that are known; a new one is a finding.
KNOWN_LONG_FUNCTIONS = set()


def files_of(root):
    """Every file of the tree that is ours, relative to root, in name order."""
    try:
        command = ["git", "-c", "safe.directory=*", "-C", str(root), "ls-files", "-z", "--cached", "--others",
                   "--exclude-standard"]
        listed = subprocess.run(command, capture_output=True, check=True).stdout
        names = [name for name in listed.decode().split("\0") if name]
    except (subprocess.CalledProcessError, FileNotFoundError):
        names = [str(path.relative_to(root)) for path in root.rglob("*")]
    names = [name for name in names
             if not name.startswith(("build/", ".git/")) and "__pycache__" not in name]
    return sorted(name for name in set(names) if (root / name).is_file())


def is_code(root, name):
    """True for C++, Python, shell, Lua and JavaScript, also when a script has no suffix."""
    path = root / name
    if path.suffix in CODE:
        return True
    if path.suffix:
        return False
    with path.open("rb") as file:
        return file.read(2) == b"#!"


def check_text(name, lines, code):
    """Line length, blanks, tabs, leftovers, words of working texts, machine paths."""
    for number, line in enumerate(lines, 1):
        where = f"{name}:{number}"
        if code and len(line) > LINE_LENGTH:
            yield f"{where}: line length: {len(line)} columns, the limit is {LINE_LENGTH}"
        if line != line.rstrip():
            yield f"{where}: trailing blank: remove it"
        if code and "\t" in line:
            yield f"{where}: tab: use blanks (\\t inside text)"
        if LEFTOVERS.search(line):
            yield f"{where}: leftover: finish it or say plainly what is not done"
        if WORKING_TEXTS.search(line):
            yield f"{where}: working text: say what the code does and why instead"
        if MACHINE_PATHS.search(line):
            yield f"{where}: machine path: use a path relative to the tree or an environment variable"


def without_comments(text):
    """C++ text with comments and string contents blanked out, line structure kept."""
    pattern = re.compile(r'//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"'
                         r"|'(?:\\.|[^'\\\n])'", re.S)

    def blank(match):
        piece = match.group(0)
        if piece.startswith('"'):
            return '"' + " " * (len(piece) - 2) + '"'
        return re.sub(r"[^\n]", " ", piece)
    return pattern.sub(blank, text)


def check_banned(name, text):
    """Banned calls in src/, outside comments and string literals."""
    if not name.startswith("src/"):
        return
    rules = list(BANNED)
    if name not in CLOCK_FILES:
        rules.append((CLOCKS, "only app/clock reads a clock; take the time as an argument"))
    for number, line in enumerate(without_comments(text).split("\n"), 1):
        for pattern, instead in rules:
            found = re.search(pattern, line)
            if found:
                yield f"{name}:{number}: banned '{found.group(0).strip()}': {instead}"


def check_includes(name, text):
    """The direction of includes between the rooms of src/, and that the tools stay apart from src/."""
    includes = [(number, found.group(1)) for number, line in enumerate(text.split("\n"), 1)
                for found in [re.match(r'\s*#\s*include\s*"([^"]+)"', line)] if found]
    if name.startswith("tools/"):
        for number, target in includes:
            if target.split("/")[0] in ROOM_MAY_INCLUDE or "src/" in target:
                yield f"{name}:{number}: include of {target}: tools share nothing with src/"
    if not name.startswith("src/"):
        return
    own = name[len("src/"):].rsplit(".", 1)[0]
    room = own.split("/")[0]
    allowed = FILE_MAY_INCLUDE.get(own, ROOM_MAY_INCLUDE.get(room, []))
    if own in ("app/feed", "app/control_channel", "app/scenario_events", "app/reports", "app/main"):
        allowed = None
    for number, target in includes:
        if "/" not in target:
            yield f"{name}:{number}: include of {target}: name it from the root of src/"
            continue
        stem = target.rsplit(".", 1)[0]
        if stem == own or allowed is None:
            continue
        if not any(stem == each or (each.endswith("/") and stem.startswith(each)) for each in allowed):
            wanted = ", ".join(allowed) or "nothing of ours"
            yield f"{name}:{number}: include of {target}: src/{own} may include {wanted}"


def check_circles(root, names):
    """No circle between headers of src/."""
    edges = {}
    for name in names:
        if name.startswith("src/") and name.endswith(".h"):
            text = (root / name).read_text(errors="replace")
            edges[name] = ["src/" + each for each in re.findall(r'^\s*#\s*include\s*"([^"]+)"', text, re.M)]
    state = {}

    def visit(name, trail):
        if state.get(name) == "done":
            return None
        if name in trail:
            return trail[trail.index(name):] + [name]
        for target in edges.get(name, []):
            circle = visit(target, trail + [name])
            if circle:
                return circle
        state[name] = "done"
        return None
    for name in sorted(edges):
        circle = visit(name, [])
        if circle:
            yield f"{name}:1: include circle: {' -> '.join(circle)}"
            return


def check_built(names):
    """Every C++ file lies where the build looks for it."""
    for name in names:
        if name.endswith(".cpp") and not BUILT.fullmatch(name):
            yield f"{name}:1: in no target: the build looks in the folders that CMakeLists.txt names"


def check_pairs(names):
    """Every src/X/Y.cpp has tests/unit/X/Y_test.cpp and the reverse."""
    present = set(names)
    for name in names:
        source = re.fullmatch(r"src/(\w+)/(\w+)\.cpp", name)
        if source and name not in UNPAIRED_SOURCES:
            test = f"tests/unit/{source.group(1)}/{source.group(2)}_test.cpp"
            if test not in present:
                yield f"{name}:1: no unit test: add {test}"
        test = re.fullmatch(r"tests/unit/(\w+)/(\w+)\.cpp", name)
        if test and name not in UNPAIRED_TESTS:
            stem = re.sub(r"_test$", "", test.group(2))
            candidates = [f"src/{test.group(1)}/{stem}{suffix}" for suffix in (".cpp", ".h")]
            if not test.group(2).endswith("_test"):
                yield f"{name}:1: no test file name: they end in _test.cpp, shared code is in tests/support"
            elif not present.intersection(candidates):
                yield f"{name}:1: no source: the file it tests would be {candidates[0]}"


# Braces whose content is looked at: name spaces and records.
TRANSPARENT = re.compile(r"^\s*(?:inline\s+)?(?:namespace|extern|struct|class|enum|union)\b[^()]*$")


def functions_of(text):
    """(name, first line, number of lines) of each function body, found by counting braces."""
    text = re.sub(r"^[ ]*#(?:[^\n\\]|\\.)*", lambda found: re.sub(r"[^\n]", " ", found.group(0)),
                  without_comments(text), flags=re.M)
    head_start, depth, function = 0, 0, None
    for found in re.finditer(r"[{};]", text):
        at, mark = found.start(), found.group(0)
        if function is not None:
            depth += {"{": 1, "}": -1, ";": 0}[mark]
            if depth == 0:
                name, first = function
                last = text.count("\n", 0, at) + 1
                if name:
                    yield name, first, last - first + 1
                function, head_start = None, at + 1
            continue
        if mark == "{":
            head = text[head_start:at]
            if not TRANSPARENT.match(re.sub(r"alignas\s*\([^()]*\)", "", head)):
                # A function, or an initialiser in braces, which has no name to report.
                name = re.search(r"([\w:~]+|operator\S+)\s*\(", head)
                is_function = name is not None and "=" not in head[:name.start()]
                first = text.count("\n", 0, head_start + len(head) - len(head.lstrip())) + 1
                function, depth = (name.group(1) if is_function else None, first), 1
        head_start = at + 1


def long_functions(root, names):
    """Every function of src/ and tools/, longest first."""
    found = []
    for name in names:
        if name.startswith(("src/", "tools/")) and name.endswith((".cpp", ".h")):
            text = (root / name).read_text(errors="replace")
            found += [(count, name, function, line) for function, line, count in functions_of(text)]
    return sorted(found, key=lambda each: (-each[0], each[1]))


def check_tree(root):
    """All findings of the tree at root, and its functions."""
    names = files_of(root)
    findings = []
    for name in names:
        if DATA.search(name):
            continue
        raw = (root / name).read_bytes()
        if b"\0" in raw:
            continue
        text = raw.decode("utf-8", errors="replace")
        findings += check_text(name, text.split("\n"), is_code(root, name))
        if name.endswith((".cpp", ".h")):
            findings += check_banned(name, text)
            findings += check_includes(name, text)
    findings += check_circles(root, names)
    findings += check_built(names)
    findings += check_pairs(names)
    functions = long_functions(root, names)
    for count, name, function, line in functions:
        if count > FUNCTION_LINES and f"{name}:{function}" not in KNOWN_LONG_FUNCTIONS:
            findings.append(f"{name}:{line}: long function: {function} has {count} lines, "
                            f"the limit is {FUNCTION_LINES}")
    return findings, functions


def main():
    parser = argparse.ArgumentParser(description="Check the house rules.")
    parser.add_argument("folder", nargs="?", default=Path(__file__).resolve().parents[2], type=Path)
    findings, functions = check_tree(parser.parse_args().folder.resolve())
    for finding in findings:
        print(finding)
    print("longest functions:")
    for count, name, function, line in functions[:10]:
        print(f"  {count:4} lines  {function}  {name}:{line}")
    print(f"house rules: {len(findings)} findings")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
