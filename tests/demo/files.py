"""The demo on capture files: the same daemon, graph, routes and checks where no host can be made.

What it cannot show: the kernel's own senders and receivers, notifications and state files (both need privileges).
"""

import time
from collections import Counter

from testbed.capture import decodes_well, frame_problems, is_to, read_pcap, write_pcap
from testbed.daemon import Daemon
from testbed.packets import frame, numbers
from testbed.router import BRIDGE_MAC, Graph, Interface
from testbed.run import wait_until
from testbed.traffic import TTL

from demo.flows import FRESH, MAIN, counter_problems, route_row

DRAWING = r"""
   source.pcap  ---> Ethernet1 +--------------------+ Ethernet3 ---> receiver1.pcap
   stray.pcap   ---> Ethernet2 |       bessd        + Ethernet4 ---> receiver2.pcap
   fresh.pcap   ---> Ethernet7 |  Mfib for IPv4     + Ethernet5 ---> receiver3.pcap
                               |  Mfib for IPv6     + Ethernet6 ---> bystander.pcap
                               +--------------------+
"""

PACKETS = 1000
STRAY_PACKETS = 20
FRESH_PACKETS = 10
ROUTE_DELAY = 0.2
INPUTS = {1: "source", 2: "stray", 7: "fresh"}
OUTPUTS = {3: "receiver1", 4: "receiver2", 5: "receiver3", 6: "bystander"}
OIFS = ["Ethernet3", "Ethernet4", "Ethernet5"]


def write_inputs(run):
    def interleaved(flows, count):
        return [frame(flow.source, flow.group, flow.number, n) for n in range(count) for flow in flows]
    for name, frames in {"source": interleaved(MAIN, PACKETS), "stray": interleaved(MAIN, STRAY_PACKETS),
                         "fresh": interleaved(FRESH, FRESH_PACKETS)}.items():
        write_pcap(run.directory / f"{name}.pcap", frames)


def build(run):
    daemon = run.keep(Daemon(run, options=["--publish-period", "500"]))
    graph = Graph(daemon)
    graph.build()
    for number, name in INPUTS.items():
        graph.add_interface(Interface(number, f"net_pcap{number},rx_pcap={run.directory}/{name}.pcap"))
    for number, name in OUTPUTS.items():
        graph.add_interface(Interface(number, f"net_pcap{number},tx_pcap={run.directory}/{name}.pcap"))
    graph.start_instance_tasks()
    for module in graph.INSTANCES:
        graph.set_size(module, "setMaxUnresolvedPktBuffers", FRESH_PACKETS)
    return daemon, graph


def counters(daemon, family):
    return daemon.json("counters", "--af", family)


def wait_for(daemon, flow, condition, timeout=15):
    return wait_until(lambda: condition(route_row(counters(daemon, flow.version), flow)), timeout)


def play(run, report):
    print(DRAWING)
    write_inputs(run)
    report.title("A daemon with seven ports, an instance for each family")
    daemon, graph = build(run)
    report.check("daemon, ports, graph and tasks are up", [] if daemon.alive() else ["the daemon ended"])
    for flow in MAIN:
        graph.add_route(flow.source, flow.group, "Ethernet1", OIFS)

    report.title(f"A new flow: {FRESH_PACKETS} packets of each family, the route {ROUTE_DELAY * 1000:.0f} ms later")
    start(daemon, 7)
    for flow in FRESH:
        held = wait_for(daemon, flow, lambda row: row["queued"] == FRESH_PACKETS)
        report.check(f"{FRESH_PACKETS} packets to {flow.group} are held", [] if held else ["they are not"])
    time.sleep(ROUTE_DELAY)
    for flow in FRESH:
        graph.add_route(flow.source, flow.group, "Ethernet7", OIFS)

    report.title("The rest of the traffic")
    start(daemon, 1)
    for flow in MAIN:
        report.check(f"{PACKETS} packets to {flow.group} are taken",
                     [] if wait_for(daemon, flow, lambda row: row["packets"] >= PACKETS) else ["they are not"])
    start(daemon, 2)
    check_counters(daemon, report)
    removal(daemon, graph, report)
    check_outputs(run, report)


def start(daemon, number):
    daemon.sfectl("task", "attach", f"rx{number}", "--worker", 0)


def check_counters(daemon, report):
    for flow, fresh in zip(MAIN, FRESH):
        def wrong(flow=flow, fresh=fresh):
            return counter_problems(counters(daemon, flow.version), flow, fresh, PACKETS, FRESH_PACKETS,
                                    STRAY_PACKETS, OIFS, fresh_iif="Ethernet7")
        wait_until(lambda: not wrong(), 15)
        report.check(f"IPv{flow.version}: every route and interface adds up, one WrongVif event", wrong())
    print("\n" + daemon.sfectl("counters"))


def removal(daemon, graph, report):
    report.title("The instances are removed")
    for module in graph.INSTANCES:
        daemon.sfectl("module", "del", module)
    for version in (4, 6):
        report.check(f"IPv{version}: the shared tables are empty",
                     [f"{len(rows)} rows in {table}" for table, rows in counters(daemon, version).items() if rows])
    report.equal("the daemon stops on SIGTERM with exit code", daemon.stop(), 0)


def check_outputs(run, report):
    report.title("What was written")
    for number, name in OUTPUTS.items():
        path = run.directory / f"{name}.pcap"
        frames = read_pcap(path)
        if name == "bystander":
            report.equal("bystander: frames of the flows", len(frames), 0)
            continue
        for flow, count in [(flow, PACKETS) for flow in MAIN] + [(flow, FRESH_PACKETS) for flow in FRESH]:
            of_flow = [data for data in frames if is_to(flow.group)(data)]
            times = Counter(numbers(data) for data in of_flow)
            expected = Counter({(flow.number, n): 1 for n in range(count)})
            report.check(f"{name}: {count} packets to {flow.group}, each once, rewritten",
                         frame_problems(of_flow, flow.group, BRIDGE_MAC, TTL - 1)
                         + ([] if times == expected else [f"{len(of_flow)} frames, {len(times)} different"]))
        good, total = decodes_well(path)
        report.equal(f"{name}: tshark finds every checksum right and nothing malformed", (good, total),
                     (2 * (PACKETS + FRESH_PACKETS),) * 2)
