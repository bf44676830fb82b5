"""A real terminal for programs that need one: tmux, with a server of its own."""

import itertools
import os
import shlex
import subprocess

from .run import wait_until


class Terminal:
    """A shell in a terminal of so many columns and lines; close() ends it with all that runs in it."""

    PROMPT = "ready> "
    _numbers = itertools.count()

    def __init__(self, run, environment, columns=110, lines=30):
        self.socket = run.directory / f"tmux{next(self._numbers)}.sock"
        shell = {**os.environ, **environment}
        shell.pop("TMUX", None)
        server = self._tmux("-f", "/dev/null", "new-session", "-d", "-x", str(columns), "-y", str(lines))
        subprocess.run([*server, "env", f"PS1={self.PROMPT}", "ENV=", "/bin/sh"], env=shell, check=True,
                       capture_output=True, timeout=20)
        try:
            # The size is ours alone: no status line, no client that attaches.
            self._run("set-option", "-g", "status", "off")
            self._run("set-option", "-g", "window-size", "manual")
            self.resize(columns, lines)
            if not self.wait_for(self.PROMPT.strip()):
                raise RuntimeError(f"no shell in the terminal: {self.text()}")
        except BaseException:
            self.close()
            raise

    def _tmux(self, *args):
        return ["tmux", "-S", str(self.socket), *args]

    def _run(self, *args):
        return subprocess.run(self._tmux(*args), capture_output=True, text=True, timeout=20).stdout

    def type(self, text):
        """Characters, as if typed."""
        self._run("send-keys", "-l", text)

    def key(self, name):
        """A key by name: Enter, Down, C-c."""
        self._run("send-keys", name)

    def command(self, *argv):
        self.type(shlex.join(map(str, argv)))
        self.key("Enter")

    def resize(self, columns, lines):
        self._run("resize-window", "-x", str(columns), "-y", str(lines))

    def text(self, escapes=False):
        """What is on the screen; with the escapes of its colours if they are wanted."""
        return self._run("capture-pane", "-p", *(["-e"] if escapes else []))

    def wait_for(self, *words, escapes=False, timeout=10):
        """Waits until all words are on the screen. Returns the screen, or None."""
        def shown():
            screen = self.text(escapes)
            return screen if all(word in screen for word in words) else None
        return wait_until(shown, timeout)

    def close(self):
        subprocess.run(self._tmux("kill-server"), capture_output=True, timeout=20)
