"""The configuration file: the examples, the schema and the program's own reader agree on every case."""

import json
import re
import subprocess

import jsonschema
import pytest
import yaml

from testbed.daemon import SFECTL
from testbed.run import ROOT

SCHEMA = json.loads((ROOT / "sfectl/schema/sfe.schema.json").read_text())
EXAMPLES = sorted((ROOT / "examples").glob("*.yaml"))
PORTS = "ports: {p1: net_null1, p2: net_null2}\ninterfaces: {Ethernet1: p1, Ethernet2: p2}\n"


class CoreLoader(yaml.SafeLoader):
    """YAML 1.2's core schema: what editors and the program read, unlike this library's 1.1."""


CoreLoader.yaml_implicit_resolvers = {}
CoreLoader.add_implicit_resolver("tag:yaml.org,2002:bool", re.compile("^(true|True|TRUE|false|False|FALSE)$"),
                                 list("tTfF"))
CoreLoader.add_implicit_resolver("tag:yaml.org,2002:null", re.compile("^(~|null|Null|NULL|)$"), ["~", "n", "N", ""])
CoreLoader.add_implicit_resolver("tag:yaml.org,2002:int", re.compile("^[-+]?[0-9]+$"), list("-+0123456789"))
CoreLoader.add_implicit_resolver("tag:yaml.org,2002:float", re.compile(r"^[-+]?(\.[0-9]+|[0-9]+\.[0-9]*)$"),
                                 list("-+.0123456789"))


def schema_accepts(text):
    validator = jsonschema.Draft202012Validator(SCHEMA, format_checker=jsonschema.FormatChecker())
    return not list(validator.iter_errors(yaml.load(text, CoreLoader)))


def check(text):
    return subprocess.run([str(SFECTL), "apply", "--check", "-"], input=text, capture_output=True, text=True,
                          timeout=30)


def test_schema_is_one():
    jsonschema.Draft202012Validator.check_schema(SCHEMA)


@pytest.mark.parametrize("path", EXAMPLES, ids=[path.stem for path in EXAMPLES])
def test_examples_are_good(path):
    result = check(path.read_text())
    assert (result.returncode, result.stderr) == (0, "")
    assert schema_accepts(path.read_text())


def test_there_are_the_promised_examples():
    assert {"minimal", "vlans", "two-vrfs", "ipv6", "many-options"} <= {path.stem for path in EXAMPLES}


GOOD = [
    "{}",
    "workers: 2",
    "workers: [3, {id: 7}, {core: 9}]",
    "workers:\nports:\ninterfaces:\nroutes:\nvrfs:\ntoggles:\n",
    "bridge_mac: 10:00:00:00:00:01",
    "ports: {p1: {devargs: '0000:01:00.0', worker: none}}",
    "ports: {p1: 0000:01:00.0}",
    "interfaces: {Register0: none, Loopback4294967295: {port: none}}",
    PORTS + "routes: [{group: 239.1.1.1, iif: Ethernet1}]",
    PORTS + "routes: [{group: 'FF15::1', source: '2001:DB8::1', iif: Ethernet1, oifs: ['Ethernet2:0']}]",
    PORTS + "routes: [{group: 239.1.1.1, source: 0.0.0.0, iif: None, oifs: [Tunnel5], flags: }]",
    PORTS + "vrfs: {default: , red: {ipv4: , ipv6: {worker: none}}}",
    "toggles: {MfaWcFwd: True}",
]

# What the shape of the file shows.
BAD_SHAPE = [
    "[]", "text", "colour: red",
    "workers: 0", "workers: 37", "workers: two", "workers: []", "workers: [1024]", "workers: [{id: 36}]",
    "workers: [{idd: 1}]", "workers: 1.5", "workers: '1'",
    "publish_period: 0", "publish_period: 3600001", "publish_period: 1s",
    "ethernet_mode: 1", "ethernet_mode: 'true'",
    "bridge_mac: 01:00:00:00:00:01", "bridge_mac: 00:00:00:00:00:00", "bridge_mac: 02:00:00:00:01", "bridge_mac: 7",
    "ports: []", "ports: {none: a}", "ports: {'a b': a}", "ports: {a: }", "ports: {a: ''}", "ports: {a: 5}",
    "ports: {a: {}}", "ports: {a: {devargs: x, rxq: 0}}", "ports: {a: {devargs: x, mtu: 67}}",
    "ports: {a: {devargs: x, txq: many}}", "ports: {a: {devargs: x, promisc: true}}",
    "ports: {a: {devargs: x, promiscuous: on}}", "ports: {a: {devargs: x, worker: []}}",
    "ports: {a: {devargs: x, worker: 36}}", "ports: {a: {devargs: x, queue_size: 65536}}",
    "ports: {%s: x}" % ("a" * 62),
    "interfaces: {eth0: none}", "interfaces: {Ethernet01: none}", "interfaces: {Ethernet65536: none}",
    "interfaces: {Ethernet1.4095: none}", "interfaces: {Ethernet1: }", "interfaces: {Ethernet1: {}}",
    "interfaces: {Ethernet1: {port: none, vlan: 0}}", "interfaces: {Ethernet1: {port: none, speed: 1}}",
    "interfaces: {Ethernet1: {port: none, multicast: maybe}}", "interfaces: {Ethernet1: {port: none, multicast: 1}}",
    "interfaces: {Register0: {port: none, vlan: 5}}", "interfaces: {Register0: p1}\nports: {p1: x}",
    "interfaces: {Vlan4095: none}", "interfaces: {Loopback4294967296: none}",
    "vrfs: []", "vrfs: {'a b': }", "vrfs: {a: 1}", "vrfs: {a: {id: -1}}", "vrfs: {a: {families: []}}",
    "vrfs: {a: {families: [ipv4, ipv4]}}", "vrfs: {a: {families: [ipv5]}}", "vrfs: {a: {families: ipv4}}",
    "vrfs: {a: {exclusive_routes: 0}}", "vrfs: {a: {cache_entries: 4294967296}}", "vrfs: {a: {cleanup_rate: 0}}",
    "vrfs: {a: {ipv4: {id: 1}}}", "vrfs: {a: {extra_interfaces: [eth0]}}", "vrfs: {a: {extra_interfaces: Vlan1}}",
    "routes: {}", "routes: [1]", "routes: [{}]", "routes: [{group: 239.1.1.1}]", "routes: [{iif: None}]",
    "routes: [{iif: None, group: 10.0.0.1}]", "routes: [{iif: None, group: 239.1.1}]",
    "routes: [{iif: None, group: 239.1.1.256}]", "routes: [{iif: None, group: 'fe80::1'}]",
    "routes: [{iif: None, group: 'ff15:::1'}]", "routes: [{iif: None, group: 'ff15::1%eth0'}]",
    "routes: [{iif: None, group: 239.1.1.1, source: 239.1.1.1}]",
    "routes: [{iif: None, group: 239.1.1.1, source: 10.0.0}]",
    "routes: [{iif: None, group: 'ff15::1', source: 'ff02::1'}]",
    "routes: [{iif: eth0, group: 239.1.1.1}]", "routes: [{iif: None, group: 239.1.1.1, oifs: Tunnel1}]",
    "routes: [{iif: None, group: 239.1.1.1, oifs: ['Tunnel1:8192']}]",
    "routes: [{iif: None, group: 239.1.1.1, oifs: ['Tunnel1:']}]",
    "routes: [{iif: None, group: 239.1.1.1, oif: [Tunnel1]}]",
    "routes: [{iif: None, group: 239.1.1.1, flags: [to_cpu, to_cpu]}]",
    "routes: [{iif: None, group: 239.1.1.1, flags: [cpu]}]",
    "toggles: {a: 1}", "toggles: [a]",
]

# What only somebody sees who compares the parts with each other.
BAD_MEANING = [
    ("workers: [1, 1]", "1:14"), ("workers: [{id: 0}, {id: 0}]", "1:20"),
    ("ports: {a: x, b: x}", "1:15"), ("workers: 1\nports: {a: {devargs: x, worker: 1}}", "2:9"),
    ("interfaces: {Ethernet1: nowhere}", "1:25"), ("interfaces: {Ethernet1: {port: none, vlan: 7}}", "1:44"),
    (PORTS + "vrfs: {default: {families: [ipv6]}}\nroutes: [{group: 239.1.1.1, iif: Ethernet1}]", "4:10"),
    (PORTS + "routes: [{group: 239.1.1.1, iif: Ethernet3}]", "3:34"),
    (PORTS + "routes: [{group: 239.1.1.1, iif: Ethernet1, vrf: red}]", "3:50"),
    (PORTS + "routes: [{group: 239.1.1.1, iif: Ethernet1, oifs: [Ethernet1]}]", "3:52"),
    (PORTS + "routes:\n- {group: 239.1.1.1, iif: Ethernet1}\n- {group: 239.1.1.1, iif: Ethernet2}", "5:3"),
    (PORTS + "routes: [{source: 10.0.0.1, group: 'ff15::1', iif: Ethernet1}]", "3:19"),
    ("vrfs: {a: {id: 1}, b: {id: 1}}", "1:20"), ("vrfs: {a: {families: [ipv4], ipv6: {}}}", "1:36"),
]


@pytest.mark.parametrize("text", GOOD)
def test_both_accept(text):
    result = check(text)
    assert (result.returncode, result.stderr) == (0, "")
    assert schema_accepts(text)


@pytest.mark.parametrize("text", BAD_SHAPE)
def test_both_refuse(text):
    result = check(text)
    assert (result.returncode, result.stdout) == (1, ""), result
    assert re.match(r"standard input:\d+:\d+: .+expected|.*did you mean", result.stderr), result.stderr
    assert not schema_accepts(text)


@pytest.mark.parametrize("text, place", BAD_MEANING)
def test_reader_refuses_what_does_not_fit_together(text, place):
    result = check(text)
    assert (result.returncode, result.stdout) == (1, ""), result
    assert f"standard input:{place}: " in result.stderr, result.stderr
    assert schema_accepts(text)


def test_reports_all_problems_at_once(tmp_path):
    path = tmp_path / "bad.yaml"
    path.write_text("portz: {}\nworkers: 99\nroutes:\n  - {group: 10.0.0.1, iif: Ethernet7}\n")
    result = subprocess.run([str(SFECTL), "apply", "--check", str(path)], capture_output=True, text=True, timeout=30)
    assert result.returncode == 1
    assert result.stderr.splitlines() == [
        f"{path}:1:1: unknown key 'portz' in the file; did you mean 'ports'?",
        f"{path}:2:10: workers is '99'; expected a number of 1 to 36",
        f"{path}:4:13: group '10.0.0.1' is not multicast; expected an address of 224.0.0.0/4 or ff00::/8",
        f"sfectl: 3 problems in {path}; nothing was changed",
    ]
