"""The libraries of src/ link downward: what one leaves undefined is defined on a lower floor or outside.

The linker does not say so by itself: programs link all of the libraries, and then it takes a symbol from any
of them. scripts/check-rules holds the includes to the same list of floors; here are the objects.
"""

import importlib.machinery
import importlib.util
import os
import pathlib
import shutil
import subprocess

SOURCE = pathlib.Path(os.environ["TESSEL_SOURCE"])
BUILD = pathlib.Path(os.environ["TESSEL_BUILD"])
STRONG = set("TDBR")  # functions and objects; inline ones, which every library may hold, are weak


def floor_of_folders():
    """Folder to floor, lowest 0, from the list of the rules check."""
    loader = importlib.machinery.SourceFileLoader("check_rules", str(SOURCE / "scripts" / "check-rules"))
    spec = importlib.util.spec_from_loader(loader.name, loader)
    rules = importlib.util.module_from_spec(spec)
    loader.exec_module(rules)
    return rules.FLOOR_OF


def symbols(archive):
    """Strong definitions and undefined symbols of an archive."""
    listed = subprocess.run(["nm", "-P", str(archive)], capture_output=True, text=True, check=True).stdout
    rows = [line.split() for line in listed.splitlines()]
    kinds = [(row[0], row[1]) for row in rows if len(row) >= 2]
    return ({name for name, kind in kinds if kind in STRONG}, {name for name, kind in kinds if kind == "U"})


def upward_links(folder_of_archives, floors):
    """One line for each library and symbol that it takes from the same or a higher floor."""
    known = {folder: symbols(folder_of_archives / f"libtessel_{folder}.a") for folder in floors}
    home = {name: folder for folder, (defined, _) in known.items() for name in defined}
    return [f"{folder} takes {name} from {home[name]}"
            for folder, (defined, undefined) in known.items() for name in sorted(undefined - defined)
            if name in home and home[name] != folder and floors[home[name]] >= floors[folder]]


def test_every_library_takes_symbols_from_lower_floors_only():
    floors = floor_of_folders()
    assert len(floors) > 5
    assert all((BUILD / f"libtessel_{folder}.a").exists() for folder in floors)
    assert upward_links(BUILD, floors) == []


def plant(folder, tmp_path, code):
    """Adds an object made from code to a copy of the folder's library."""
    source = tmp_path / "planted.cpp"
    source.write_text(code)
    subprocess.run(["c++", "-std=c++20", "-c", str(source), "-o", str(tmp_path / "planted.o")], check=True)
    subprocess.run(["ar", "r", str(tmp_path / f"libtessel_{folder}.a"), str(tmp_path / "planted.o")],
                   check=True, capture_output=True)


def test_call_into_a_higher_floor_is_found(tmp_path):
    floors = floor_of_folders()
    for folder in floors:
        shutil.copy(BUILD / f"libtessel_{folder}.a", tmp_path)
    assert upward_links(tmp_path, floors) == []
    plant("market", tmp_path, "namespace tessel { struct SipEngine; void flush_messages(SipEngine& engine);\n"
                              "void planted(SipEngine& engine) { flush_messages(engine); } }\n")
    found = upward_links(tmp_path, floors)
    assert len(found) == 1, found
    assert found[0].startswith("market takes ") and found[0].endswith(" from engine"), found


def test_call_into_another_folder_of_the_same_floor_is_found(tmp_path):
    floors = floor_of_folders()
    for folder in floors:
        shutil.copy(BUILD / f"libtessel_{folder}.a", tmp_path)
    plant("wire", tmp_path, "namespace tessel { struct FaultInjector; enum class FaultDecision;\n"
                            "FaultDecision decide_fault(FaultInjector& faults, unsigned long packet);\n"
                            "void planted(FaultInjector& faults) { decide_fault(faults, 1); } }\n")
    found = upward_links(tmp_path, floors)
    assert len(found) == 1, found
    assert found[0].startswith("wire takes ") and found[0].endswith(" from mold"), found
