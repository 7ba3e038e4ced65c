"""Puts the shared helpers of the whole-process tests on the module search path."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent / "python_support"))
