"""The daemon as a child process, its client, and the client's monitor."""

import contextlib
import json
import signal
import subprocess
import threading
from pathlib import Path

from .namespaces import available
from .run import BUILD, start

HERE = Path(__file__).resolve().parent
BESSD = BUILD / "bin" / "bessd"
SFECTL = BUILD / "bin" / "sfectl"
PLUGINS = [BUILD / "lib" / "libSfeIntf.so", BUILD / "lib" / "libMfib.so"]
STATE_FILES = Path("/BessProc")


def _remove_empty(directory):
    with contextlib.suppress(OSError):
        directory.rmdir()


class CommandFailed(Exception):
    def __init__(self, argv, result):
        super().__init__(f"{' '.join(argv)}: exit code {result.returncode}: {result.stderr.strip()}")
        self.code = result.returncode
        self.error = result.stderr.strip()


class Daemon:
    """A daemon in a network namespace (or in ours), with a socket and a system name of its own.

    Where this machine allows it, it also has its own mounts and its own root directory, so that its state files meet
    nobody else's.
    """

    def __init__(self, run, namespace=None, options=(), environment=None):
        self.run = run
        self.namespace = namespace
        self.socket = f"unix:{run.directory}/bessd.sock"
        self.environment = {"SYSNAME": run.name, "SFE_SOCKET": self.socket, **(environment or {})}
        self.log = run.directory / "bessd.log"
        argv = [str(BESSD), "--socket", self.socket, "--memory", "256", "--packets", "16384", *options]
        if available()[0]:
            root = run.directory / "root"
            root.mkdir()
            argv = ["unshare", "--mount", "--propagation", "slave", str(HERE / "private-root"), str(root), *argv]
        elif not STATE_FILES.exists():
            run.defer(_remove_empty, STATE_FILES)
        if namespace is not None:
            argv = namespace.command(*argv)
        self._ready = threading.Event()
        self._lines = []
        with open(self.log, "wb") as log:
            self.process = start(argv, self.environment, stdout=subprocess.PIPE, stderr=log)
        try:
            self._reader = threading.Thread(target=self._read, daemon=True)
            self._reader.start()
            if not self._ready.wait(60) or not any("bessd ready" in line for line in self._lines):
                raise RuntimeError(f"the daemon does not start: {self.log_text()[-2000:]}")
        except BaseException:  # Ctrl-C among them: nobody else knows of the process yet
            self.close()
            raise

    def _read(self):
        for line in self.process.stdout:
            self._lines.append(line.decode(errors="replace").rstrip())
            if "bessd ready" in self._lines[-1]:
                self._ready.set()
        self._ready.set()  # it ended: nobody waits for nothing

    def log_text(self):
        return "\n".join(self._lines) + "\n" + (self.log.read_text(errors="replace") if self.log.exists() else "")

    def attempt(self, *args):
        """Runs the client. Returns the finished process with stdout and stderr as text."""
        return subprocess.run([str(SFECTL), *map(str, args)], env=self.environment, capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, timeout=60)

    def sfectl(self, *args):
        """Runs the client, which must succeed. Returns what it printed."""
        result = self.attempt(*args)
        if result.returncode != 0:
            raise CommandFailed(["sfectl", *map(str, args)], result)
        return result.stdout

    def json(self, *args):
        text = self.sfectl("--json", *args)
        return json.loads(text) if text.strip() else None

    def load_plugins(self):
        for plugin in PLUGINS:
            self.sfectl("plugin", "load", plugin)

    def monitor(self, *options):
        return Monitor(self, options)

    def state_file(self, name):
        """What `cat /BessProc/NAME` prints in the daemon's mount namespace; None when there is no such file."""
        pid = str(self.process.pid)
        result = subprocess.run(["nsenter", f"--mount=/proc/{pid}/ns/mnt", f"--root=/proc/{pid}/root",
                                 "cat", str(STATE_FILES / name)], capture_output=True, text=True, timeout=30)
        return result.stdout if result.returncode == 0 else None

    def alive(self):
        return self.process.poll() is None

    def stop(self, timeout=30):
        """SIGTERM, as an operator's service manager sends it. Returns the exit code."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self._reader.join()
        return self.process.returncode

    def close(self):
        self.stop()
        self.process.stdout.close()


class Monitor:
    """`sfectl monitor` beside the daemon, from the moment that it listens."""

    def __init__(self, daemon, options=()):
        argv = [str(SFECTL), "monitor", *options]
        if daemon.namespace is not None:
            argv = daemon.namespace.command(*argv)
        self._condition = threading.Condition()
        self._lines = []
        self.process = start(argv, daemon.environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        try:
            self._thread = threading.Thread(target=self._read, daemon=True)
            self._thread.start()
            if not self.wait_for(1, "listening"):
                raise RuntimeError(f"the monitor does not listen: {self.lines()}")
        except BaseException:
            self.close()
            raise

    def _read(self):
        for line in self.process.stdout:
            with self._condition:
                self._lines.append(line.decode(errors="replace").rstrip())
                self._condition.notify_all()

    def lines(self, *words):
        """The lines so far that contain every one of the words."""
        with self._condition:
            return [line for line in self._lines if all(word in line for word in words)]

    def wait_for(self, count, *words, timeout=10):
        """Waits for `count` such lines. Returns the ones that came."""
        def matching():
            return [line for line in self._lines if all(word in line for word in words)]
        with self._condition:
            self._condition.wait_for(lambda: len(matching()) >= count, timeout)
            return matching()

    def close(self):
        if self.process.poll() is None:
            self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self._thread.join()
        self.process.stdout.close()
