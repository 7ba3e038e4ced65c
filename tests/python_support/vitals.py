"""What a running program takes of the machine, read from outside."""

import os


def _status_bytes(pid, member):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        for line in status:
            if line.startswith(member + ":"):
                return int(line.split()[1]) * 1024
    raise AssertionError(f"no {member} of process {pid}")


def resident_bytes(pid):
    return _status_bytes(pid, "VmRSS")


def peak_resident_bytes(pid):
    return _status_bytes(pid, "VmHWM")


def process_state(pid):
    """The letter that the system gives for it: R running, S sleeping, T stopped and so on."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        return stat.read().rsplit(")", 1)[1].split()[0]


def signals(pid, member):
    """A set of signal numbers: those that a process ignores (SigIgn) or handles (SigCgt)."""
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        mask = next(int(line.split()[1], 16) for line in status if line.startswith(member + ":"))
    return {number for number in range(1, 65) if mask >> (number - 1) & 1}


def has_reaction(pid, number):
    """Whether a signal no longer has its usual effect on the process."""
    return number in signals(pid, "SigCgt") | signals(pid, "SigIgn")


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def longest_pause(times):
    """The longest stretch between two neighbors of a row of times, in seconds."""
    return max(later - earlier for earlier, later in zip(times, times[1:]))
