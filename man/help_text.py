"""What a program's --help says, as records: description, usage, commands, options, examples, exit status.

The texts have the layout of the option parser that the programs share: an option or command begins in the
third column, its description in column 31 or on the next line.
"""

import re
import subprocess
from dataclasses import dataclass, field

TEXT_COLUMN = 30


@dataclass
class Option:
    names: list      # ["-h", "--help"]
    value: str       # "FILE", empty for a flag
    limits: str      # "1 to 65535", or empty
    default: str
    text: str


@dataclass
class Help:
    description: list = field(default_factory=list)   # lines
    usage: list = field(default_factory=list)         # lines
    positionals: list = field(default_factory=list)   # (name, text)
    options: list = field(default_factory=list)       # Option
    commands: list = field(default_factory=list)      # (group, name, text)
    examples: list = field(default_factory=list)      # lines
    status: str = ""
    notes: list = field(default_factory=list)         # lines
    command_help: dict = field(default_factory=dict)  # command -> Help

    def option_names(self):
        """Every option, those of the commands too."""
        names = {name for option in self.options for name in option.names}
        for each in self.command_help.values():
            names |= each.option_names()
        return names


def parse_option(spec, text):
    found = re.match(r"(-[\w-]+(?:,-[\w-]+)*) ?(.*)$", spec)
    names, rest = found.group(1).split(","), re.sub(r" Excludes: .*| Needs: .*", "", found.group(2))
    rest = rest.removesuffix(" ...")
    rest, _, default = rest.partition("=")
    value, _, check = rest.partition(":")
    limits = re.search(r"\[(-?[\d.]+) - (-?[\d.]+)\]", check)
    # A value may take the place of its check's name: "HOST:PORT".
    if check and not limits and check not in ("NONNEGATIVE", "POSITIVE"):
        value = rest
    at_end = re.search(r"^[^\[]* \[([^\]]+)\]$", text)
    if at_end and not default:
        text, default = text[:at_end.start(1) - 2], at_end.group(1)
    return Option(names, value.replace(" REQUIRED", ""),
                  f"{limits.group(1)} to {limits.group(2)}" if limits else "", default, text)


def entries(lines):
    """(spec, description) of the lines of one group."""
    spec = text = None
    for line in lines:
        if re.match(r"  \S", line):
            if spec is not None:
                yield spec, text
            spec, text = line.strip(), ""
            if len(line) > TEXT_COLUMN and re.search(r" $", line[:TEXT_COLUMN]):
                spec, text = line[:TEXT_COLUMN].strip(), line[TEXT_COLUMN:].strip()
        elif spec is not None and line.startswith(" " * TEXT_COLUMN):
            # With the description below it, the whole line was the option; otherwise the description goes on.
            text = f"{text} {line.strip()}".strip()
    if spec is not None:
        yield spec, text


def join_split_specs(lines):
    """A long option, whose description is on the next line, may have a blank where one would be split."""
    joined = []
    for line, after in zip(lines, lines[1:] + [""]):
        if re.match(r"  -", line) and after.startswith(" " * TEXT_COLUMN) and len(line) > TEXT_COLUMN \
                and "  " not in line.strip():
            joined.append("  " + line.strip().replace(" ", "\0"))
        else:
            joined.append(line)
    return joined


def parse(text):
    """The records of a help text."""
    result, group, lines = Help(), "description", {}
    order = []
    for line in text.splitlines():
        heading = re.match(r"([A-Z][\w' ]*):$", line)
        if heading:
            group = heading.group(1)
        elif line.startswith("Usage: "):
            result.usage.append(line.removeprefix("Usage: "))
            group = "after usage"
            continue
        elif re.match(r"Exit status|Ends with", line):
            group = "status"
        elif line and not line.startswith(" ") and group not in ("description", "status"):
            group = "notes"
        if group not in lines:
            lines[group] = []
            order.append(group)
        if not heading:
            lines[group].append(line)
    for name in order:
        sort_group(result, name, lines[name])
    return result


def sort_group(result, name, lines):
    if name == "description":
        result.description = [line for line in lines if line.strip()]
    elif name == "status":
        result.status = " ".join(line.strip() for line in lines if line.strip()).removeprefix("Exit status: ")
    elif name.startswith("Example"):
        result.examples = [line.removeprefix("  ") for line in lines if line.strip()]
    elif name.lower().endswith("commands"):
        result.commands += [(name, spec, text) for spec, text in entries(lines)]
    elif name == "Positionals":
        result.positionals += [(spec.split()[0], text) for spec, text in entries(lines)]
    elif any(re.match(r"  -", line) for line in lines):
        for spec, text in entries(join_split_specs(lines)):
            result.options.append(parse_option(spec.replace("\0", " "), text))
    else:
        result.notes += lines


def of_program(path, *command):
    """The help of a program, with that of each of its commands."""
    shown = subprocess.run([path, *command, "--help"], capture_output=True, text=True, check=True, timeout=60)
    result = parse(shown.stdout)
    for _, name, _ in result.commands:
        result.command_help[name] = of_program(path, *command, name)
    return result
