"""The metrics: what an outside checker says of them, what a real server makes of them, and that they are true."""

import json
import re
import socket
import subprocess
import threading

import pytest

from testbed.daemon import BESSD
from testbed.metrics import Prometheus, Scrape, check_metrics, fetch
from testbed.router import Router
from testbed.run import ROOT, wait_until
from testbed.traffic import send_paced

HOSTS = ["source", "left", "right"]
DASHBOARD = ROOT / "packaging" / "grafana" / "sfe.json"


@pytest.fixture(scope="module")
def router(run):
    # Its namespace is of its own, and so are its ports: the usual address is free.
    router = Router(run, HOSTS, options=["--publish-period", "200", "--metrics", "--metrics-routes", "2"])
    router.url = "http://127.0.0.1:9394/metrics"
    return router


def scrape(router):
    return Scrape(fetch(router.forwarder, router.url))


def settled(router):
    """A scrape between two that count the same packets."""
    def same():
        first, second = scrape(router), scrape(router)
        quiet = [key for key in first.counters() if "packets" in key[0] or "events" in key[0]]
        return second if all(first.samples[key] == second.samples.get(key) for key in quiet) else None
    found = wait_until(same, 10)
    assert found
    return found


def send(scope, flow, count):
    receiver = scope.receiver("left", flow)
    send_paced([scope.sender("source", flow)], count, 2000)
    assert receiver.wait_for(flow.number, count, timeout=10)


def test_an_outside_checker_finds_nothing_wrong(scope, router):
    flow = scope.flow(4)
    scope.add_route(flow)
    send(scope, flow, 50)
    assert check_metrics(scrape(router).text) == ""


def test_counters_only_grow_under_traffic(scope, router):
    flow = scope.flow(4)
    scope.add_route(flow)
    receiver = scope.receiver("left", flow)
    sender = scope.sender("source", flow)
    thread = threading.Thread(target=send_paced, args=([sender], 2000, 2000))
    thread.start()
    scrapes = []
    while thread.is_alive():
        scrapes.append(scrape(router))
    thread.join()
    assert len(scrapes) > 3
    for before, after in zip(scrapes, scrapes[1:]):
        earlier, later = before.counters(), after.counters()
        assert set(earlier) <= set(later)
        assert [key for key in earlier if later[key] < earlier[key]] == []
    grown = scrapes[-1].value("bessd_worker_packets_total", worker="0")
    assert grown > scrapes[0].value("bessd_worker_packets_total", worker="0")
    # Scrapes, one after the other all the while, took no packet.
    assert receiver.wait_for(flow.number, 2000, timeout=10)
    assert receiver.problems(flow.number, 2000, 15) == []


def test_values_equal_what_the_client_shows(scope, router):
    flow = scope.flow(4)
    scope.add_route(flow)
    send(scope, flow, 100)
    now = settled(router)
    stats = scope.daemon.json("stats")
    for worker in stats["workers"]:
        labels = {"worker": str(worker["wid"])}
        assert now.value("bessd_worker_packets_total", **labels) == worker["packets"]
        sizes = {dict(has)["le"]: value for (name, has), value in now.samples.items()
                 if name == "bessd_worker_batch_packets_bucket" and set(labels.items()) <= has}
        assert set(sizes) == {"1", "2", "4", "8", "16", "32", "+Inf"}
        assert sizes["32"] == sizes["+Inf"] == now.value("bessd_worker_batch_packets_count", **labels) > 0
        assert now.value("bessd_worker_batch_packets_sum", **labels) >= worker["packets"]
    for port in stats["ports"]:
        labels = {"port": port["name"]}
        for metric, field in (("receive_packets", "rx_packets"), ("receive_bytes", "rx_bytes"),
                              ("transmit_packets", "tx_packets"), ("transmit_bytes", "tx_bytes"),
                              ("transmit_dropped_packets", "tx_dropped")):
            assert now.value(f"bessd_port_{metric}_total", **labels) == port[field], (port, metric)
        assert now.value("bessd_port_up", **labels) == 1
    assert {name for name in (dict(has)["module"] for key, has in now.samples
                              if key == "bessd_module_dropped_packets_total")} == \
        {module["name"] for module in scope.daemon.json("module", "show")}
    assert now.value("bessd_packet_buffers") == stats["packets_total"]
    assert now.value("bessd_workers_paused") == 0


def test_what_a_removed_route_leaves_is_freed(scope, router):
    before = scrape(router).value("bessd_rcu_callbacks_queued_total")
    flow = scope.flow(4)
    scope.add_route(flow)
    scope.daemon.sfectl("mroute", "del", flow.source, flow.group)

    def freed():
        now = scrape(router)
        queued = now.value("bessd_rcu_callbacks_queued_total")
        return queued > before and now.value("bessd_rcu_callbacks_run_total") >= queued \
            and now.value("bessd_rcu_callbacks_waiting") == 0
    assert wait_until(freed, 10), scrape(router).text


def test_a_slow_scraper_holds_nobody_up(scope, router):
    flow = scope.flow(4)
    scope.add_route(flow)
    with router.forwarder.entered():
        slow = [socket.create_connection(("127.0.0.1", 9394)) for _ in range(3)]
    try:
        for number, connection in enumerate(slow):
            connection.sendall(b"GET /metrics HTTP/1.1\r\n" if number else b"G")
        send(scope, flow, 100)
        assert scope.daemon.json("stats")["workers"]
        assert "bessd_build_info" in fetch(router.forwarder, router.url)
    finally:
        for connection in slow:
            connection.close()


def dashboard_expressions():
    return [target["expr"] for panel in json.loads(DASHBOARD.read_text())["panels"] for target in panel["targets"]]


def metrics_in(expression):
    """The names in an expression that stand before labels."""
    return set(re.findall(r"([a-zA-Z_:][a-zA-Z0-9_:]*)\{", expression))


def test_a_real_server_shows_the_values_and_the_dashboard_fits_them(scope, router, run):
    flow = scope.flow(4)
    scope.add_route(flow)
    send(scope, flow, 100)
    server = scope.keep(Prometheus(run, router.forwarder, "127.0.0.1:9394"))
    now = settled(router)
    expected = now.value("bessd_port_receive_packets_total", port="port1")
    result = server.wait_for(f'bessd_port_receive_packets_total{{port="port1"}} >= {expected}')
    assert result and float(result[0]["value"][1]) >= expected
    assert server.wait_for("up == 1")
    known = {name for name, _ in scrape(router).samples}
    for expression in dashboard_expressions():
        names = metrics_in(expression)
        assert names and names <= known, (expression, names - known)
        filled = expression.replace("$__rate_interval", "1m").replace("$instance", ".*")
        assert "$" not in filled
        server.query(filled)


def test_serves_one_address_alone(run, router):
    with router.forwarder.entered(), socket.socket() as other:
        other.settimeout(2)
        assert other.connect_ex(("127.0.0.2", 9394)) != 0


def test_a_second_daemon_cannot_take_the_address(run, router):
    port = 9394
    result = subprocess.run(router.forwarder.command(str(BESSD), "--socket", f"{run.directory}/second.sock",
                                                     "--memory", "128", "--metrics", f"127.0.0.1:{port}"),
                            capture_output=True, text=True, timeout=60, env={"SYSNAME": run.name})
    assert result.returncode == 1 and f"127.0.0.1:{port}" in result.stderr, result


def test_module_metrics_equal_the_shared_counters(scope, router):
    labels = {"vrf": "default", "family": "ipv4"}
    routes = scrape(router).value("mfib_routes", type="sg", **labels)
    flow = scope.flow(4)
    scope.add_route(flow)
    send(scope, flow, 30)
    row = wait_until(lambda: (found := scope.route_counters(flow)) and found["packets"] == 30 and found, 10)
    assert row

    def differences():
        now = scrape(router)
        return [(interface["intf"], metric) for interface in router.counters(4)["interfaces"]
                for metric, field in (("receive_packets", "rx_packets"), ("receive_bytes", "rx_bytes"),
                                      ("transmit_packets", "tx_packets"), ("transmit_bytes", "tx_bytes"))
                if now.values(f"mfib_interface_{metric}_total", interface=interface["intf"], **labels)
                != [interface[field]]]
    assert wait_until(lambda: not differences(), 10), differences()
    now = scrape(router)
    assert now.value("bessd_module_metrics_success", module="mfib4") == 1
    assert now.value("bessd_module_metrics_success", module="mfib6") == 1
    assert now.value("mfib_routes", type="sg", **labels) == routes + 1
    # The cap of the series of single routes holds for each module.
    assert len(now.values("mfib_route_packets_total", **labels)) <= 2
