"""A Debian root with nothing but one package's dependencies, to install that package into.

It is put together from what this machine has installed: the files of every essential package and of every package that
the given one depends on, directly or not, and their entries in the package data base. So it needs no network, and a
dependency that the package forgot is missing in it. It lives on a tmpfs in a mount namespace of its own, and is gone
with the process that holds the namespace.
"""

import re
import shutil
import subprocess
from pathlib import Path

from .run import start

DATABASE = Path("/var/lib/dpkg")
MERGED = ("bin", "sbin", "lib", "lib32", "lib64", "libx32")
# Made by maintainer scripts, so no package lists them.
MADE = ("/bin/sh", "/etc/passwd", "/etc/group", "/etc/shadow", "/etc/gshadow", "/etc/nsswitch.conf", "/etc/ld.so.cache")


def _stanzas(text):
    for block in text.strip().split("\n\n"):
        yield dict(re.findall(r"^([\w-]+): *(.*(?:\n .*)*)", block, re.M)), block


def _alternatives(field):
    """Each dependency of a field as the names that would do."""
    for clause in filter(None, (part.strip() for part in field.split(","))):
        yield [re.match(r"[^\s:(]+", choice.strip()).group(0) for choice in clause.split("|")]


class Installed:
    """What is installed on this machine."""

    def __init__(self):
        self.packages = {}
        self.providers = {}
        for fields, block in _stanzas((DATABASE / "status").read_text()):
            if fields.get("Status") != "install ok installed":
                continue
            name = fields["Package"]
            self.packages[name] = (fields, block)
            for provided in _alternatives(fields.get("Provides", "")):
                self.providers.setdefault(provided[0], name)

    def closure(self, depends):
        """The packages that are needed for a Depends field, the essential ones among them."""
        wanted = [name for name, (fields, _) in self.packages.items()
                  if fields.get("Essential") == "yes" or name == "passwd"]
        pending = [*([name] for name in wanted), *_alternatives(depends)]
        found = set()
        while pending:
            choices = pending.pop()
            name = next((self.providers.get(choice, choice) if choice not in self.packages else choice
                         for choice in choices if choice in self.packages or choice in self.providers), None)
            if name is None:
                raise LookupError(f"not installed on this machine: {' | '.join(choices)}")
            if name not in found:
                found.add(name)
                fields = self.packages[name][0]
                pending += _alternatives(f"{fields.get('Depends', '')},{fields.get('Pre-Depends', '')}")
        return sorted(found)

    def files(self, packages):
        listed = subprocess.run(["dpkg-query", "-L", *packages], capture_output=True, text=True, check=True).stdout
        names = {line for line in listed.splitlines() if line.startswith("/") and line != "/."}
        for link in filter(Path.is_symlink, Path("/etc/alternatives").iterdir()):
            target = str(link.readlink())
            if target in names:
                names |= {str(link), *(str(user) for user in Path("/usr/bin").iterdir()
                                       if user.is_symlink() and str(user.readlink()) == str(link))}
        return sorted(name for name in {*names, *MADE} if Path(name).exists() or Path(name).is_symlink())

    def database(self, packages, directory):
        """Writes the data base of only these packages."""
        (directory / "info").mkdir(parents=True)
        (directory / "updates").mkdir()
        (directory / "status").write_text("".join(self.packages[name][1] + "\n\n" for name in packages))
        (directory / "available").touch()
        for name in ("diversions", "statoverride"):
            shutil.copy(DATABASE / name, directory / name)
        for entry in (DATABASE / "info").iterdir():
            name = re.sub(r"(:\w+)?\.[^.]+$", "", entry.name)
            if name in packages or name == "format":
                shutil.copy2(entry, directory / "info" / entry.name)


class CleanRoot:
    def __init__(self, run, depends):
        self.path = run.directory / "clean"
        self.path.mkdir()
        installed = Installed()
        self.packages = installed.closure(depends)
        script = ('mount -t tmpfs -o mode=755 clean-root "$1" && for part in proc sys dev; do mkdir "$1/$part" && '
                  'mount --rbind "/$part" "$1/$part" || exit; done; echo ready; exec sleep infinity')
        argv = ["unshare", "--mount", "--propagation", "private", "sh", "-c", script, "sh", str(self.path)]
        self.holder = start(argv, {"SYSNAME": run.name}, stdout=subprocess.PIPE)
        run.keep(self)
        if self.holder.stdout.readline() != b"ready\n":
            raise RuntimeError("no clean root on this machine")
        self._fill(installed)

    def _fill(self, installed):
        root = self.outside("/")
        for name in MERGED:
            if Path("/", name).is_symlink():
                (root / name).symlink_to(f"usr/{name}")
                (root / "usr" / name).mkdir(parents=True, exist_ok=True)
        names = "".join(f"{name.lstrip('/')}\0" for name in installed.files(self.packages))
        packed = subprocess.Popen(["tar", "-C", "/", "-c", "--null", "--no-recursion", "-T", "-"],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        unpacked = subprocess.Popen(["tar", "-C", str(root), "-x", "--keep-directory-symlink"], stdin=packed.stdout)
        packed.stdout.close()
        packed.stdin.write(names.encode())
        packed.stdin.close()
        if packed.wait() != 0 or unpacked.wait() != 0:
            raise RuntimeError("cannot copy the files of the packages")
        shutil.rmtree(root / "var/lib/dpkg", ignore_errors=True)
        installed.database(set(self.packages), root / "var/lib/dpkg")
        for made in ("run", "tmp", "root", "var/tmp"):
            (root / made).mkdir(parents=True, exist_ok=True)
        (root / "etc/mtab").unlink(missing_ok=True)
        (root / "etc/mtab").symlink_to("../proc/self/mounts")
        self.check("ldconfig")

    def outside(self, path):
        """A path of the clean root as this process can use it."""
        return Path(f"/proc/{self.holder.pid}/root{self.path}") / path.lstrip("/")

    def command(self, *argv):
        """The command line that runs argv inside."""
        return ["nsenter", f"--mount=/proc/{self.holder.pid}/ns/mnt", "chroot", str(self.path), *map(str, argv)]

    def attempt(self, *argv, **environment):
        base = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive"}
        return subprocess.run(self.command(*argv), env={**base, **environment}, capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, timeout=120)

    def check(self, *argv, **environment):
        result = self.attempt(*argv, **environment)
        if result.returncode != 0:
            raise RuntimeError(f"{' '.join(map(str, argv))}: {result.returncode}: {result.stdout}{result.stderr}")
        return result.stdout

    def close(self):
        self.holder.terminate()
        self.holder.wait()
        self.holder.stdout.close()
