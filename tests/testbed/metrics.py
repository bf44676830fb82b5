"""What a scrape of the daemon says, and a Prometheus server of one's own."""

import json
import re
import socket
import subprocess
import urllib.error
import urllib.parse
import urllib.request

from .run import start, wait_until

PROMETHEUS, PROMTOOL = "prometheus", "promtool"
_SAMPLE = re.compile(r'^([a-zA-Z_:][a-zA-Z0-9_:]*)(?:\{(.*)\})? (\S+)$')
_LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\]|\\.)*)"')


class Scrape:
    """The samples of one scrape."""

    def __init__(self, text):
        self.text = text
        self.types = dict(re.findall(r"^# TYPE (\S+) (\S+)$", text, re.M))
        self.samples = {}
        for line in text.splitlines():
            if line and not line.startswith("#"):
                name, labels, value = _SAMPLE.match(line).groups()
                self.samples[name, frozenset(_LABEL.findall(labels or ""))] = float(value)

    def values(self, name, **labels):
        return [value for (found, has), value in self.samples.items()
                if found == name and set(labels.items()) <= has]

    def value(self, name, **labels):
        found = self.values(name, **labels)
        assert len(found) == 1, (name, labels, found)
        return found[0]

    def counters(self):
        """Everything that may only grow."""
        kinds = {"counter": [""], "histogram": ["_bucket", "_sum", "_count"]}
        names = {name + end for name, kind in self.types.items() for end in kinds.get(kind, [])}
        return {key: value for key, value in self.samples.items() if key[0] in names}


def fetch(namespace, url, timeout=10):
    """The body of an answer. A connection belongs to the namespace in which it is opened."""
    with namespace.entered(), urllib.request.urlopen(url, timeout=timeout) as answer:
        return answer.read().decode()


def free_port(namespace):
    with namespace.entered(), socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def check_metrics(text):
    """What `promtool check metrics` has to say; empty when all is well."""
    result = subprocess.run([PROMTOOL, "check", "metrics"], input=text, capture_output=True, text=True, timeout=60)
    return result.stdout + result.stderr + ("" if result.returncode == 0 else f"exit code {result.returncode}")


class Prometheus:
    """A server that scrapes one address, with its data in the run's directory."""

    def __init__(self, run, namespace, target):
        self.namespace = namespace
        self.port = free_port(namespace)
        directory = run.directory / "prometheus"
        directory.mkdir()
        config = directory / "prometheus.yml"
        config.write_text("global:\n  scrape_interval: 1s\nscrape_configs:\n  - job_name: sfe\n"
                          f"    static_configs:\n      - targets: ['{target}']\n")
        with open(directory / "log", "wb") as log:
            self.process = start(namespace.command(PROMETHEUS, f"--config.file={config}",
                                                   f"--storage.tsdb.path={directory}/data",
                                                   f"--web.listen-address=127.0.0.1:{self.port}"),
                                 {"SYSNAME": run.name}, stdout=log, stderr=log)

    def api(self, path, **query):
        url = f"http://127.0.0.1:{self.port}/api/v1/{path}?{urllib.parse.urlencode(query)}"
        try:
            return json.loads(fetch(self.namespace, url))
        except urllib.error.HTTPError as error:
            text = error.read()
            if not text.startswith(b"{"):
                raise  # it is not ready yet
            return json.loads(text)

    def query(self, expression):
        """The result of an expression; raises on one that is none."""
        answer = self.api("query", query=expression)
        if answer["status"] != "success":
            raise ValueError(f"{expression}: {answer.get('error')}")
        return answer["data"]["result"]

    def wait_for(self, expression, timeout=30):
        def ask():
            try:
                return self.query(expression)
            except OSError:  # it does not listen yet
                return None
        return wait_until(ask, timeout, pause=0.1)

    def close(self):
        self.process.terminate()
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
