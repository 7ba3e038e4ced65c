"""The instructions of one message, counted by callgrind, stay within their budget.

A count is the same on every run of the same program, whatever else the machine does, so that it can fail a
build where a time could not. `TESSEL_UPDATE_BUDGET=1` writes today's counts as the budget: do so when a
change is worth its cost.
"""

import json
import os
import pathlib
import re
import subprocess

SOURCE = pathlib.Path(os.environ["TESSEL_SOURCE"])
BUDGET = SOURCE / "bench" / "instruction_budget.json"
ALLOWED_GROWTH = 1.05
INSTRUMENTS = 50
FEW_TICKS, MANY_TICKS = 20, 60


def counted(program, ticks, truth):
    """Instructions and messages of a run of this many ticks."""
    command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", str(program),
               str(INSTRUMENTS), str(ticks)]
    done = subprocess.run(command + ([truth] if truth else []), capture_output=True, text=True, check=True)
    instructions = int(re.search(r"Collected : (\d+)", done.stderr).group(1))
    return instructions, int(re.search(r"messages (\d+)", done.stdout).group(1))


def instructions_per_message(program, truth):
    """The difference of two runs, so that start-up is not in it."""
    few, few_messages = counted(program, FEW_TICKS, truth)
    many, many_messages = counted(program, MANY_TICKS, truth)
    return (many - few) / (many_messages - few_messages)


def test_instructions_of_a_message_stay_within_the_budget():
    program = pathlib.Path(os.environ["TESSEL_BUILD"]) / "tick_profile"
    measured = {
        "no truth": round(instructions_per_message(program, None), 1),
        "truth": round(instructions_per_message(program, "/dev/null"), 1),
    }
    print("instructions a message:", measured)
    if os.environ.get("TESSEL_UPDATE_BUDGET"):
        BUDGET.write_text(json.dumps(measured, indent=1) + "\n")
    budget = json.loads(BUDGET.read_text())
    for name, count in measured.items():
        assert count <= budget[name] * ALLOWED_GROWTH, f"{name}: {count} instructions, budget {budget[name]}"
