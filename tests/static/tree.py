"""The files of the tree, for the checks that need no running program."""

import os
import pathlib
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
NOT_OURS = {"build", "dist", "node_modules", ".git", ".cache", "__pycache__"}
SKIPPED = 77


def files():
    """Paths of all files from the root on: those of git, or of a source archive."""
    names = []
    if (ROOT / ".git").exists() and shutil.which("git"):
        listed = subprocess.run(
            ["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            check=False, capture_output=True, text=True)
        names = [name for name in listed.stdout.split("\0") if name]
    if not names:
        for folder, folders, here in os.walk(ROOT):
            folders[:] = [name for name in folders if name not in NOT_OURS]
            names += [os.path.relpath(os.path.join(folder, name), ROOT) for name in here]
    return sorted({name for name in names if (ROOT / name).is_file()})


def need(tool):
    """Ends the test, as skipped, when the tool is missing."""
    if shutil.which(tool) is None:
        print(f"skipped: {tool} is missing; scripts/install-deps.sh --tests installs it")
        sys.exit(SKIPPED)


def check(tool, options, names):
    """Runs the tool on these files and ends the test with its result."""
    if not names:
        sys.exit(f"there is nothing to check with {tool}")
    done = subprocess.run([tool, *options, *names], cwd=ROOT, check=False)
    print(f"{tool}: {len(names)} files, {'content' if done.returncode == 0 else 'complaints above'}")
    sys.exit(1 if done.returncode else 0)
