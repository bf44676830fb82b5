"""The usual forwarder: a daemon with one port per host, an instance for each family, tasks on worker 0."""

import base64
import json

from .daemon import Daemon
from .namespaces import Network
from .run import wait_until

BRIDGE_MAC = bytes.fromhex("020000005fe0")


def base64_text(data):
    return base64.b64encode(data).decode()


class Interface:
    """One interface of the forwarder: a port, and what the packets call it."""

    def __init__(self, number, devargs):
        self.number = number
        self.name = f"Ethernet{number}"
        self.port = f"port{number}"
        self.devargs = devargs
        self.port_id = None


class Graph:
    """Builds the packet graph in a running daemon and takes it down again.

    PortInc per port -> IntfIn; IntfIn:0 -> mfib4, IntfIn:1 -> mfib6, IntfIn:2 -> sink; gate 1 of each instance ->
    IntfOut, gate 0 -> sink; IntfOut:<port id> -> PortOut.
    """

    INSTANCES = {"mfib4": 1, "mfib6": 2}

    def __init__(self, daemon, bridge_mac=BRIDGE_MAC):
        self.daemon = daemon
        self.bridge_mac = bridge_mac
        self.interfaces = []

    def build(self, instance_arg=None):
        ctl = self.daemon.sfectl
        ctl("worker", "add", 0)
        self.daemon.load_plugins()
        ctl("module", "add", "IntfIn", "in")
        ctl("module", "add", "IntfOut", "out")
        ctl("module", "add", "Sink", "sink")
        ctl("connect", "in:2", "sink")
        for gate, (name, family) in enumerate(self.INSTANCES.items()):
            self.add_instance(name, family, instance_arg or {})
            ctl("connect", f"in:{gate}", name)
            ctl("connect", f"{name}:1", "out")
            ctl("connect", f"{name}:0", "sink")

    def add_instance(self, name, family, extra):
        arg = {"vrfname": "default", "af": family, "ethernet_mode": True, **extra}
        self.daemon.sfectl("module", "add", "Mfib", name, "--arg", json.dumps(arg))
        self.daemon.sfectl("command", name, "setBridgeMacAddr", json.dumps({"mac": base64_text(self.bridge_mac)}))

    def add_interface(self, interface):
        ctl = self.daemon.sfectl
        interface.port_id = self.daemon.json("port", "add", interface.port, interface.devargs)["id"]
        ctl("module", "add", "PortInc", f"rx{interface.number}", "--arg", f'{{"port": "{interface.port}"}}')
        ctl("module", "add", "PortOut", f"tx{interface.number}", "--arg", f'{{"port": "{interface.port}"}}')
        ctl("connect", f"rx{interface.number}", "in")
        ctl("connect", f"out:{interface.port_id}", f"tx{interface.number}")
        ctl("intf", "add", interface.name, "--port", interface.port, "--mcast")
        self.interfaces.append(interface)

    def start_instance_tasks(self):
        """The instances' own tasks: held packets, alerts' ageing. Registering the first also starts the state files."""
        for name in self.INSTANCES:
            resolve = self.daemon.json("command", name, "regMfibTasks")["task_id"]
            cleanup = self.daemon.json("command", name, "regCleanupTask")["task_id"]
            self.daemon.sfectl("task", "attach", name, resolve, "--worker", 0)
            self.daemon.sfectl("task", "attach", name, cleanup, "--worker", 0, "--rate", 2)

    def start_receiving(self):
        for interface in self.interfaces:
            self.daemon.sfectl("task", "attach", f"rx{interface.number}", "--worker", 0)

    def add_route(self, source, group, iif, oifs, *options):
        argv = ["mroute", "add", source, group, "--iif", iif, *options]
        for oif in oifs:
            argv += ["--oif", oif]
        self.daemon.sfectl(*argv)

    def set_size(self, module, command, value):
        self.daemon.sfectl("command", module, command, f'{{"value": {value}}}')


class Router:
    """Hosts around one daemon. Host number n is at interface Ethernet<n> and has 10.<n>.0.2 and 2001:db8:<n>::2."""

    def __init__(self, run, hosts, options=(), environment=None, instance_arg=None):
        self.network = run.keep(Network(run.name))
        self.forwarder = self.network.namespace("fwd")
        self.forwarder.sysctl({"net/ipv6/conf/default/disable_ipv6": 1})
        self.hosts = {}
        for number, name in enumerate(hosts, 1):
            host = self.network.namespace(name)
            self.network.cable(host, "eth0", self.forwarder, f"veth{number}")
            host.address("eth0", f"10.{number}.0.2/24", f"2001:db8:{number}::2/64")
            self.hosts[name] = host
        self.daemon = run.keep(Daemon(run, self.forwarder, options, environment))
        self.graph = Graph(self.daemon)
        self.graph.build(instance_arg)
        for number in range(1, len(self.hosts) + 1):
            self.graph.add_interface(Interface(number, f"net_af_packet{number},iface=veth{number}"))
        self.graph.start_instance_tasks()
        self.graph.start_receiving()

    def interface(self, host):
        return f"Ethernet{list(self.hosts).index(host) + 1}"

    def counters(self, family):
        return self.daemon.json("counters", "--af", family)

    def wait_for_counters(self, family, condition, timeout=15):
        """Counters are published periodically: asks until they are as the condition wants. Returns the last answer."""
        wait_until(lambda: condition(self.counters(family)), timeout, pause=0.2)
        return self.counters(family)
