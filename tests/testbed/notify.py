"""The service manager's end of a daemon's notify socket."""

import socket
import threading
import time


class NotifySocket:
    def __init__(self, run):
        self.path = run.directory / "notify"
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(self.path))
        self._messages = []
        self._condition = threading.Condition()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while message := self._socket.recv(4096):
            with self._condition:
                self._messages.append((time.monotonic(), message.decode()))
                self._condition.notify_all()

    def messages(self, since=0.0):
        with self._condition:
            return [text for when, text in self._messages if when >= since]

    def wait_for(self, word, since=0.0, timeout=20):
        """Waits for a message that contains the word. Returns it; None when time is up."""
        def matching():
            return [text for when, text in self._messages if when >= since and word in text]
        with self._condition:
            self._condition.wait_for(matching, timeout)
            return next(iter(matching()), None)

    def close(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as end:
            end.sendto(b"", str(self.path))
        self._thread.join()
        self._socket.close()
