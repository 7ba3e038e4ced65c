"""The pinned npm packages of the interop tests."""

import fcntl
import json
import shutil
import subprocess
from pathlib import Path

from time_scale import scaled

NPM = Path(__file__).resolve().parents[1] / "interop" / "npm"


def install_packages():
    """Installs them unless all are there. One test at a time does so, and none begins before they are
    whole."""
    assert shutil.which("node"), "node is needed"
    with (NPM / "package.json").open() as manifest:
        fcntl.flock(manifest, fcntl.LOCK_EX)
        names = json.load(manifest)["dependencies"]
        if not all((NPM / "node_modules" / name / "package.json").exists() for name in names):
            subprocess.run(["npm", "ci", "--no-audit", "--no-fund"], cwd=NPM, check=True, timeout=scaled(300))
