"""The files of the tree that the lint scripts look at: what git knows, and new files it does not ignore."""

import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def _git(*args):
    out = subprocess.run(["git", "-C", str(ROOT), *args], check=True, capture_output=True, text=True).stdout
    return [line for line in out.split("\0") if line]


def files(*suffixes, changed=False):
    """Paths below ROOT, as text, sorted; `changed`: only those that differ from the last commit."""
    if changed:
        names = _git("diff", "--name-only", "-z", "HEAD")
        names += _git("ls-files", "-z", "--others", "--exclude-standard")
    else:
        names = _git("ls-files", "-z", "--cached", "--others", "--exclude-standard")
    return sorted({n for n in names if n.endswith(suffixes) and (ROOT / n).is_file()})


def cpp_files(changed=False):
    return files(".h", ".cpp", changed=changed)


def report(problems):
    """Prints the problems; the exit code of a check."""
    for problem in problems:
        print(problem)
    return 1 if problems else 0
