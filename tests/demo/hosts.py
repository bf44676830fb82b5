"""The demo on network namespaces: six hosts around one daemon."""

import time

from testbed.capture import Capture, decodes_well, frame_problems, group_mac, is_to, mac_text, write_pcap
from testbed.router import BRIDGE_MAC, Router
from testbed.run import wait_until
from testbed.traffic import TTL, Receiver, Sender, send_paced

from demo.flows import FRESH, IPV4, MAIN, counter_problems, dump_problems, route_row

DRAWING = r"""
   source                                                      receiver1
   10.1.0.2  ---- Ethernet1 +--------------------+ Ethernet3 ---- 10.3.0.2
                            |                    |             receiver2
                            |       bessd        + Ethernet4 ---- 10.4.0.2
   stray                    |  Mfib for IPv4     |             receiver3
   10.2.0.2  ---- Ethernet2 +  Mfib for IPv6     + Ethernet5 ---- 10.5.0.2
                            |                    |             bystander
                            +--------------------+ Ethernet6 ---- 10.6.0.2

   Each host is a network namespace, each line a veth pair. The source sends to 239.1.1.1 and ff15::1;
   the routes lead from Ethernet1 to Ethernet3, 4 and 5. The stray host sends the same flow from the wrong side;
   the bystander has joined the groups, but no route leads there.
"""

HOSTS = ["source", "stray", "receiver1", "receiver2", "receiver3", "bystander"]
RECEIVERS = HOSTS[2:5]
PACKETS = 1000
STRAY_PACKETS = 20
FRESH_PACKETS = 10
ROUTE_DELAY = 0.2
PACE = 1500  # packets per second over both families: a machine with one busy core still keeps up
OIFS = ["Ethernet3", "Ethernet4", "Ethernet5"]


class Scene:
    """The hosts, their sockets, and what the steps of the play share."""

    def __init__(self, run, report):
        self.run = run
        self.report = report
        # Counters are published every 3 s: a whole round of traffic fits between two publications.
        self.router = Router(run, HOSTS, options=["--publish-period", "3000"])
        self.daemon = self.router.daemon
        self.monitor = run.keep(self.daemon.monitor())
        groups = [flow.group for flow in (*MAIN, *FRESH)]
        self.receivers = {name: run.keep(Receiver(self.router.hosts[name], "eth0", groups))
                          for name in (*RECEIVERS, "bystander")}
        self.captures = {name: run.keep(Capture(self.router.hosts[name], "eth0"))
                         for name in (*RECEIVERS, "bystander")}

    def sender(self, host, flow):
        # The stray host claims the source's address: the same flow, from the wrong side.
        namespace = self.router.hosts[host]
        if host != "source":
            length = 24 if flow.version == 4 else 64
            namespace.address("eth0", f"{flow.source}/{length}")
        return self.run.keep(Sender(namespace, "eth0", flow.source, flow.group, flow.number))

    def add_route(self, flow):
        self.router.graph.add_route(flow.source, flow.group, "Ethernet1", OIFS)


def play(run, report):
    print(DRAWING)
    report.title("A daemon with six ports, an instance for each family")
    scene = Scene(run, report)
    report.check("daemon, ports, graph and tasks are up", [] if scene.daemon.alive() else ["the daemon ended"])
    for flow in MAIN:
        scene.add_route(flow)
    registered = time.monotonic()
    unresolved_flow(scene)
    forwarding(scene)
    wrong_interface(scene)
    counters(scene)
    state_files(scene, registered)
    removal(scene)


def unresolved_flow(scene):
    report, router = scene.report, scene.router
    report.title(f"A new flow: {FRESH_PACKETS} packets of each family, the route {ROUTE_DELAY * 1000:.0f} ms later")
    for module in router.graph.INSTANCES:
        router.graph.set_size(module, "setMaxUnresolvedPktBuffers", FRESH_PACKETS)
    for flow in FRESH:
        scene.sender("source", flow).send(FRESH_PACKETS)
    for flow in FRESH:
        lines = scene.monitor.wait_for(FRESH_PACKETS, "nocache", f",{flow.group})")
        report.equal(f"the monitor prints a NoCache line for each held packet to {flow.group}", len(lines),
                     FRESH_PACKETS)
        if lines:
            print(f"          {lines[0]}")
    time.sleep(ROUTE_DELAY)
    for flow in FRESH:
        early = [name for name in RECEIVERS if scene.receivers[name].packets(flow.number)]
        report.check(f"nothing to {flow.group} is forwarded before its route is there",
                     [f"{name} got packets" for name in early])
        scene.add_route(flow)
    for flow in FRESH:
        arrivals(scene, flow, FRESH_PACKETS)


def arrivals(scene, flow, count):
    for name in RECEIVERS:
        receiver = scene.receivers[name]
        receiver.wait_for(flow.number, count, timeout=10)
    # A copy too many would come right behind: it gets time to show itself.
    time.sleep(0.3)
    for name in RECEIVERS:
        scene.report.check(f"{name} got {count} packets to {flow.group}, each once, TTL {TTL - 1}",
                           scene.receivers[name].problems(flow.number, count, TTL - 1))


def forwarding(scene):
    report = scene.report
    report.title(f"{PACKETS} IPv4 and {PACKETS} IPv6 packets to three receivers")
    # Right after a publication, so that none falls into the traffic: a counter that is being published may lose one.
    scene.router.wait_for_counters(4, lambda counted: route_row(counted, FRESH[IPV4])["packets"] == FRESH_PACKETS)
    senders = [scene.sender("source", flow) for flow in MAIN]
    send_paced(senders, PACKETS, PACE)
    for flow in MAIN:
        arrivals(scene, flow, PACKETS)
    for name in RECEIVERS:
        wire(scene, name)
    extra = [frame for flow in (*MAIN, *FRESH) for frame in scene.captures["bystander"].frames(is_to(flow.group))]
    report.equal("the bystander got none", len(extra), 0)


def wire(scene, name):
    """What was on a receiver's wire, looked at by us and by an independent decoder."""
    frames = []
    for flow in MAIN:
        of_flow = scene.captures[name].frames(is_to(flow.group))
        frames += of_flow
        scene.report.check(f"{name}: {len(of_flow)} frames to {mac_text(group_mac(flow.group))}"
                           f" from {mac_text(BRIDGE_MAC)}",
                           [*frame_problems(of_flow, flow.group, BRIDGE_MAC, TTL - 1),
                            *([] if len(of_flow) == PACKETS else [f"{PACKETS} were expected"])])
    path = scene.run.directory / f"{name}.pcap"
    write_pcap(path, frames)
    good, total = decodes_well(path)
    scene.report.equal(f"{name}: tshark finds every checksum right and nothing malformed", (good, total),
                       (2 * PACKETS, 2 * PACKETS))


def wrong_interface(scene):
    report = scene.report
    report.title(f"{STRAY_PACKETS} packets of each flow from a second sender on the wrong interface")
    senders = [scene.sender("stray", flow) for flow in MAIN]
    send_paced(senders, STRAY_PACKETS, PACE)
    for flow in MAIN:
        scene.monitor.wait_for(1, "wrongvif", f",{flow.group})")
        # The stray packets are through when the route has counted them; until then nothing can be said.
        scene.router.wait_for_counters(
            flow.version, lambda counted, f=flow: route_row(counted, f)["packets"] >= PACKETS + STRAY_PACKETS)
        lines = scene.monitor.lines("wrongvif", f",{flow.group})")
        report.equal(f"one WrongVif notification for {flow.group}, on Ethernet2",
                     (len(lines), sum("Ethernet2" in line for line in lines)), (1, 1))
        for line in lines[:1]:
            print(f"          {line}")
        totals = {name: len(scene.receivers[name].packets(flow.number)) for name in RECEIVERS}
        report.check(f"none of them is forwarded to {flow.group}",
                     [f"{name} got {total} packets in all" for name, total in totals.items() if total != PACKETS])


def counters(scene):
    report = scene.report
    report.title("Counters, as another process reads them from shared memory")
    for flow, fresh in zip(MAIN, FRESH):
        def wrong(counted, flow=flow, fresh=fresh):
            return counter_problems(counted, flow, fresh, PACKETS, FRESH_PACKETS, STRAY_PACKETS, OIFS)
        counted = scene.router.wait_for_counters(flow.version, lambda now: not wrong(now))
        report.check(f"IPv{flow.version}: every route and interface adds up", wrong(counted))
    print("\n" + scene.daemon.sfectl("counters"))


def state_files(scene, registered):
    report = scene.report
    report.title("cat /BessProc/Mroute4_default, Mroute6_default")
    for flow, fresh in zip(MAIN, FRESH):
        name = f"Mroute{flow.version}_default"
        text = wait_until(lambda: scene.daemon.state_file(name), 20 - min(10, time.monotonic() - registered), 0.2)
        report.check(f"{name} shows both routes", dump_problems(text, [flow, fresh], "Ethernet1", OIFS))
    text = scene.daemon.state_file("Mroute4_default") or ""
    print("".join(f"          {line}\n" for line in text.splitlines()[:10]), end="")


def removal(scene):
    report, daemon = scene.report, scene.daemon
    report.title("The instances are removed")
    for module in scene.router.graph.INSTANCES:
        daemon.sfectl("module", "del", module)
    for version in (4, 6):
        counted = scene.router.counters(version)
        report.check(f"IPv{version}: the shared tables are empty",
                     [f"{len(rows)} rows in {table}" for table, rows in counted.items() if rows])
        report.equal(f"Mroute{version}_default is gone", daemon.state_file(f"Mroute{version}_default"), None)
    report.equal("the daemon stops on SIGTERM with exit code", daemon.stop(), 0)
