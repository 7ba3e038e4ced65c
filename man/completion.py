"""Completion for bash and zsh from the records of help_text.py."""

import re

FILE_OPTION = re.compile(r"--(.*-)?(out|pcap|report|json|junit|md|config|script|plot|log|summary|file|dir"
                         r"|artifacts)$")
FILE_ARGUMENT = re.compile(r"FILE|TRUTH|OUTPUT|PCAP|DIR|PATH|TIMELINE")


def takes_file(option):
    return bool(option.value) and (bool(FILE_ARGUMENT.search(option.value))
                                   or any(FILE_OPTION.match(name) for name in option.names))


def words(options):
    return " ".join(name for option in options for name in option.names)


def pattern(options):
    """Alternatives for a case, empty when there are none."""
    return "|".join(name for option in options for name in option.names)


def inner_commands(details):
    """The commands of a command, and all their options."""
    names = [each for _, each, _ in details.commands]
    options = {option.names[-1]: option for each in details.command_help.values() for option in each.options}
    return names, list(options.values())


BASH_HEAD = """# bash completion for {name}(1)                              -*- shell-script -*-
# Made from {name}'s own help.

_{function}() {{
    local cur=${{COMP_WORDS[COMP_CWORD]}} prev=${{COMP_WORDS[COMP_CWORD - 1]}}
    COMPREPLY=()
"""

BASH_FILES = """        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
"""


def bash_values(options, indent="    "):
    """Completes what follows an option that takes a value; returns from the function then."""
    files = pattern([option for option in options if takes_file(option)])
    others = pattern([option for option in options if option.value and not takes_file(option)])
    lines = []
    if files or others:
        lines.append("    case $prev in\n")
        if files:
            lines.append(f"    {files})\n{BASH_FILES}        ;;\n")
        if others:
            lines.append(f"    {others}) return ;;\n")
        lines.append("    esac\n")
    return "".join(indent[4:] + line for line in "".join(lines).splitlines(keepends=True))


def bash(name, shown):
    """The completion file of a program."""
    function = name.replace("-", "_")
    text = BASH_HEAD.format(name=name, function=function)
    every = {option.names[-1]: option for option in shown.options}
    for details in shown.command_help.values():
        every.update({option.names[-1]: option for option in details.options})
        every.update({option.names[-1]: option for option in inner_commands(details)[1]})
    text += bash_values(list(every.values()))
    if shown.commands:
        names = " ".join(each for _, each, _ in shown.commands)
        text += ("    local word command=\n"
                 "    for word in \"${COMP_WORDS[@]:1:COMP_CWORD - 1}\"; do\n"
                 f"        case \" {names} \" in\n"
                 "        *\" $word \"*) command=$word; break ;;\n"
                 "        esac\n"
                 "    done\n"
                 "    local options\n"
                 "    case $command in\n")
        for _, each, _ in shown.commands:
            details = shown.command_help[each]
            names_inside, options_inside = inner_commands(details)
            offered = " ".join([*names_inside, words(options_inside or details.options)])
            text += f"    {each}) options='{offered}' ;;\n"
        text += f"    *) options='{names} {words(shown.options)}' ;;\n    esac\n"
    else:
        text += f"    local options='{words(shown.options)}'\n"
    files = any(FILE_ARGUMENT.search(each) for each, _ in shown.positionals)
    takers = [each for each, details in shown.command_help.items()
              if any(FILE_ARGUMENT.search(argument) for argument, _ in details.positionals)]
    text += "    mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$cur\")\n"
    if files or takers:
        condition = "[[ $cur != -* ]]" + (f" && [[ ' {' '.join(takers)} ' == *\" ${{command:-none}} \"* ]]"
                                          if not files else "")
        text += (f"    if {condition}; then\n        compopt -o filenames 2>/dev/null\n"
                 "        mapfile -t COMPREPLY < <(compgen -f -- \"$cur\")\n    fi\n")
    return text + f"}}\n\ncomplete -F _{function} {name}\n"


def zsh_quoted(text):
    return "'" + re.sub(r"([\[\]:\\])", r"\\\1", text).replace("'", "'\\''") + "'"


def zsh_options(options):
    """One argument of _arguments for each name of each option."""
    lines = []
    for option in options:
        action = f":{option.value.lower().replace(':', ' ')}:{'_files' if takes_file(option) else ' '}" \
            if option.value else ""
        for name in option.names:
            text = re.sub(r"([\[\]:\\])", r"\\\1", option.text).replace("'", "'\\''")
            lines.append(f"'{name}[{text}]{action}'")
    return lines


def zsh_positionals(positionals):
    return [f"':{name.lower()}:{'_files' if FILE_ARGUMENT.search(name) else ' '}'" for name, _ in positionals]


def zsh(name, shown):
    """The completion file of a program."""
    head = f"#compdef {name}\n# Made from {name}'s own help.\n\n"
    own = zsh_options(shown.options)
    if not shown.commands:
        return head + " \\\n    ".join(["_arguments -s", *own, *zsh_positionals(shown.positionals)]) + "\n"
    text = head + "local state line\nlocal -a commands\ncommands=(\n"
    for _, each, what in shown.commands:
        text += f"    {zsh_quoted(each)[:-1]}:{zsh_quoted(what)[1:]}\n"
    states = ["'1:command:->command'", "'*::argument:->argument'"]
    text += ")\n" + " \\\n    ".join(["_arguments -C", *own, *states]) + "\n"
    text += "case $state in\ncommand) _describe command commands ;;\nargument)\n    case $line[1] in\n"
    for _, each, _ in shown.commands:
        details = shown.command_help[each]
        names_inside, options_inside = inner_commands(details)
        arguments = [*zsh_options(options_inside or details.options), *zsh_positionals(details.positionals)]
        if names_inside:
            arguments.append(f"'1:command:({' '.join(names_inside)})'")
        text += f"    {each}) _arguments " + " \\\n        ".join(arguments) + " ;;\n"
    return text + "    esac\n    ;;\nesac\n"
