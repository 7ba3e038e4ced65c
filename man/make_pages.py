#!/usr/bin/env python3
"""Makes a program's manual page and its completions from its --help:

    make_pages.py PROGRAM... --out DIR --version V
    DIR/man/man1/NAME.1.gz   DIR/bash/NAME   DIR/zsh/_NAME

A program is given by its path. What --help has no room for is in NAME.scd beside this file: paragraphs for
the description, then sections. The feed has no --help; NAME.help beside this file is read in its place.
Pages of other things than programs, NAME.SECTION.scd, become DIR/man/manSECTION/NAME.SECTION.gz.
"""

import argparse
import gzip
import os
import re
import subprocess
import sys
from datetime import datetime
from pathlib import Path

import completion
import help_text

HERE = Path(__file__).resolve().parent
MANUAL = "tessel manual"


def plain(text):
    """Text in which scdoc finds no markup."""
    return re.sub(r"([\\_*#<>.~-])", r"\\\1", text).replace("'", "\\'")


def option_entry(option):
    names = ", ".join(f"*{plain(name)}*" for name in option.names)
    value = f" _{plain(option.value)}_" if option.value else ""
    more = [option.limits, f"default: {option.default}" if option.default else ""]
    more = "; ".join(each for each in more if each)
    text = option.text + (f" ({more})" if more else "")
    return f"{names}{value}\n\t{plain(text or 'No description')}\n"


def literal(lines):
    return "```\n" + "\n".join(lines) + "\n```\n"


def command_entry(program, name, text, details):
    """A command with its arguments, options and notes."""
    notes = [line for line in details.notes if line.strip()]
    usage = [line for line in notes if re.match(rf"{program} .*\b{name}\b", line)]
    notes = [line for line in notes if line not in usage]
    arguments = usage[-1].split(f" {name}", 1)[1] if usage and "[--control" in usage[-1] else ""
    arguments = arguments or "".join(f" {each}" for each, _ in details.positionals)
    lines = [f"## {program} {name}{arguments}", "", plain(text), ""]
    if notes:
        lines.append(literal(notes))
    lines += [f"_{plain(each)}_\n\t{plain(what)}\n" for each, what in details.positionals if what]
    lines += [option_entry(option) for option in details.options if "--help" not in option.names]
    return "\n".join(lines)


def command_entries(program, shown):
    """The entries of all commands, each followed by those of its own commands."""
    entries = []
    for _, each, text in shown.commands:
        details = shown.command_help[each]
        entries.append(command_entry(program, each, text, details))
        entries += command_entries(f"{program} {each}", details)
    return entries


def extra_text(name):
    """(paragraphs of the description, sections) of NAME.scd; empty without one."""
    path = HERE / f"{name}.scd"
    if not path.exists():
        return "", ""
    found = re.match(r"(.*?)(^# .*)?\Z", path.read_text(), re.DOTALL | re.MULTILINE)
    return found.group(1), found.group(2) or ""


def page(name, shown, version, see_also):
    """The page of a program, as scdoc reads it."""
    paragraphs, sections = extra_text(name)
    first, *rest = shown.description
    parts = [f'{name}(1) "tessel {version}" "{MANUAL}"', "# NAME",
             f"{name} - {plain(first[0].lower() + first[1:].rstrip('.'))}", "# SYNOPSIS"]
    parts.append("++\n".join(f"*{name}*{plain(usage.removeprefix(name))}" for usage in shown.usage))
    parts += ["# DESCRIPTION", plain(" ".join(shown.description)), paragraphs]
    parts += [f"_{plain(each)}_\n\t{plain(text)}\n" for each, text in shown.positionals]
    notes = [line for line in shown.notes if line.strip()]
    parts += [plain(" ".join(notes))] if notes else []
    parts += ["# OPTIONS", "\n".join(option_entry(option) for option in shown.options)]
    if shown.commands:
        parts.append("# COMMANDS")
        parts += command_entries(name, shown)
    parts.append(sections)
    if shown.examples:
        parts += ["# EXAMPLES", literal(shown.examples)]
    if shown.status:
        parts += ["# EXIT STATUS", plain(shown.status[0].upper() + shown.status[1:])]
    parts += ["# SEE ALSO", ", ".join(see_also)]
    return re.sub(r"\n{3,}", "\n\n", "\n\n".join(part.strip("\n") for part in parts if part.strip())) + "\n"


def write_page(text, path, date):
    """Formats and compresses; the same text gives the same bytes on every day."""
    done = subprocess.run(["scdoc"], input=text, capture_output=True, text=True, check=False,
                          env={**os.environ, "SOURCE_DATE_EPOCH": str(date)})
    if done.returncode != 0:
        sys.exit(f"make_pages.py: {path}: {done.stderr.strip()}")
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(gzip.compress(done.stdout.encode(), 9, mtime=0))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("programs", nargs="+", type=Path)
    parser.add_argument("--out", type=Path, required=True)
    parser.add_argument("--version", required=True)
    parser.add_argument("--date", default="1970-01-01", help="of the pages, YYYY-MM-DD")
    options = parser.parse_args()
    date = int(datetime.fromisoformat(f"{options.date}T00:00:00+00:00").timestamp())

    other_pages = sorted(path.name.removesuffix(".scd") for path in HERE.glob("*.[0-9].scd"))
    references = {each: f"*{each[:-2]}*({each[-1]})" for each in other_pages}
    references |= {f"{path.name}.1": f"*{path.name}*(1)" for path in options.programs}
    for path in options.programs:
        name, own = path.name, HERE / f"{path.name}.help"
        shown = help_text.parse(own.read_text()) if own.exists() else help_text.of_program(path)
        others = [reference for each, reference in sorted(references.items()) if each != f"{name}.1"]
        write_page(page(name, shown, options.version, others), options.out / f"man/man1/{name}.1.gz", date)
        for shell, text in (("bash/", completion.bash(name, shown)), ("zsh/_", completion.zsh(name, shown))):
            target = options.out / f"{shell}{name}"
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_text(text)
    for each in other_pages:
        text = (HERE / f"{each}.scd").read_text().replace("@VERSION@", options.version)
        write_page(text, options.out / f"man/man{each[-1]}/{each}.gz", date)


if __name__ == "__main__":
    main()
