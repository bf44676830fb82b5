"""Runs the blocks of a Markdown document in a shell of its own, as a reader would, and compares what they print.

| block | what is done with it |
|---|---|
| ```` ```sh ```` | run as a whole; it must succeed and print nothing |
| ```` ```console ```` | lines that begin with "# " are run one by one; the lines below each are what it must print |
| any other, with a first line "# NAME.EXTENSION" | saved as that file |

In expected lines, <word> stands for one word that differs from run to run, any blanks for any blanks, and a line of
"..." for any lines.
"""

import os
import queue
import re
import subprocess
import textwrap
import threading

from .daemon import HERE
from .run import BUILD

BLOCK = re.compile(r"^( *)```(\w*)\n(.*?)^\1```$", re.M | re.S)
FILE = re.compile(r"# ([\w-]+\.\w+)\n")
END = "-- the block ends --"


def blocks(text):
    """(kind, text) of each fenced block, in their order."""
    return [(kind, textwrap.dedent(block)) for _, kind, block in BLOCK.findall(text)]


def steps(text):
    """(command, expected output) of a console block."""
    for part in re.split(r"^# ", text, flags=re.M)[1:]:
        command, _, output = part.partition("\n")
        yield command, output


def matches(expected, printed):
    lines = []
    for line in expected.splitlines():
        if line.strip() == "...":
            lines.append(r"(?:.*\n)*?")
            continue
        words = [r"\S+".join(re.escape(piece) for piece in re.split(r"<[\w-]+>", word)) for word in line.split()]
        lines.append(r"[ \t]*" + r"[ \t]+".join(words) + r"[ \t]*\n")
    return re.fullmatch("".join(lines), printed) is not None


# A machine of one's own as far as names go: mounts, network, processes, /run and shared memory.
PRIVATE = """
mount -t proc proc /proc && mount -t tmpfs run /run && mount -t tmpfs shm /dev/shm || exit
mkdir /run/reader /run/netns && mount --bind "$1" /run/reader && mount --bind "$2" /run/reader/build/release || exit
cd /run/reader && ip link set lo up || exit
while read -r block; do . "/run/reader/$block" </dev/null; echo "$3 $?"; done
"""


class Reader:
    """A shell that keeps its variables and background jobs from block to block."""

    def __init__(self, run):
        self.directory = run.directory / "reader"
        (self.directory / "build" / "release").mkdir(parents=True)
        root = run.directory / "root"
        root.mkdir()
        argv = ["setpriv", "--pdeathsig", "TERM", "unshare", "--mount", "--net", "--pid", "--fork", "--kill-child",
                "--propagation", "slave", str(HERE / "private-root"), str(root),
                "bash", "-c", PRIVATE, "bash", str(self.directory), str(BUILD), END]
        self.process = subprocess.Popen(argv, env={**os.environ, "SYSNAME": run.name, "LC_ALL": "C.UTF-8"},
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        start_new_session=True)
        self._lines = queue.Queue()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        for line in self.process.stdout:
            self._lines.put(line.decode(errors="replace"))
        self._lines.put(None)

    def save(self, name, text):
        (self.directory / name).write_text(text)

    def logs(self):
        """What background commands wrote into files."""
        return "".join(f"{path.name}:\n{path.read_text(errors='replace')}" for path in self.directory.glob("*.log"))

    def do(self, command, timeout=20):
        """Runs a command. Returns its exit code and what it printed."""
        self.save(".block", command + "\n")
        self.process.stdin.write(b".block\n")
        self.process.stdin.flush()
        printed = ""
        while True:
            try:
                line = self._lines.get(timeout=timeout)
            except queue.Empty:
                raise TimeoutError(f"no end after {timeout} s: {command}\n{printed}{self.logs()}") from None
            if line is None:
                raise RuntimeError(f"the shell ended in: {command}\n{printed}")
            if END in line:
                before, _, code = line.partition(END)
                return int(code), printed + (before and before + "\n")
            printed += line

    def close(self):
        self.process.stdin.close()
        try:
            self.process.wait(2)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self._thread.join()
        self.process.stdout.close()


def follow(reader, text):
    """Does what a document says. Returns what differs from it, as text; empty when nothing does."""
    for kind, block in blocks(text):
        if kind == "sh":
            code, printed = reader.do(block)
            print(f"{block}{printed}", end="")
            if code != 0 or printed:
                return f"{block}ended with {code} and printed:\n{printed}"
        elif kind == "console":
            for command, expected in steps(block):
                code, printed = reader.do(command)
                print(f"# {command}\n{printed}", end="")
                if code != 0 or not matches(expected, printed):
                    return f"# {command}\nended with {code} and printed:\n{printed}instead of:\n{expected}"
        elif named := FILE.match(block):
            reader.save(named.group(1), block)
    return ""
