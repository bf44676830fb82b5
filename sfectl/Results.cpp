#include "sfectl/Results.h"

#include "sfectl/Arguments.h"
#include "sfectl/MessageJson.h"

namespace Sfectl {
namespace {

template <class T>
using Repeated = google::protobuf::RepeatedPtrField<T>;

Json orNull(bool present, const Json& value) {
  return present ? value : Json(nullptr);
}

}  // namespace

Report workerReport(const Repeated<bess::pb::WorkerInfo>& workers) {
  Report report({{"WORKER", "wid"},
                 {"CORE", "core"},
                 {"RUNNING", "running"},
                 {"TASKS", "tasks"},
                 {"PACKETS", "packets"},
                 {"BITS", "bits"},
                 {"ROUNDS", "rounds"},
                 {"SILENT-DROPS", "silent_drops"}});
  for (const auto& w : workers) {
    report.add({w.wid(), orNull(w.core() >= 0, w.core()), w.running(), w.tasks(), w.packets(),
                w.bits(), w.rounds(), w.silent_drops()});
  }
  return report;
}

Report portReport(const Repeated<bess::pb::PortInfo>& ports) {
  Report report({{"NAME", "name"},
                 {"ID", "id"},
                 {"DRIVER", "driver"},
                 {"MAC", "mac"},
                 {"MTU", "mtu"},
                 {"RXQ", "rxq"},
                 {"TXQ", "txq"},
                 {"QUEUE-SIZE", "queue_size"},
                 {"LINK", "link_up"},
                 {"MBPS", "link_speed_mbps"},
                 {"PROMISC", "promiscuous"},
                 {"ALLMULTI", "allmulticast"},
                 {"DEVARGS", "devargs"}});
  for (const auto& p : ports) {
    report.add({p.name(), p.id(), p.driver(), macText(p.mac()), p.mtu(), p.rxq(), p.txq(),
                orNull(p.queue_size() > 0, p.queue_size()), p.link_up(), p.link_speed_mbps(),
                p.promiscuous(), p.allmulticast(), p.devargs()});
  }
  return report;
}

Report portCounterReport(const Repeated<bess::pb::PortInfo>& ports) {
  Report report({{"PORT", "name"},
                 {"RX-PACKETS", "rx_packets"},
                 {"RX-BYTES", "rx_bytes"},
                 {"RX-MISSED", "rx_missed"},
                 {"RX-ERRORS", "rx_errors"},
                 {"RX-NOMBUF", "rx_nombuf"},
                 {"TX-PACKETS", "tx_packets"},
                 {"TX-BYTES", "tx_bytes"},
                 {"TX-ERRORS", "tx_errors"},
                 {"TX-DROPPED", "tx_dropped"}});
  for (const auto& p : ports) {
    const auto& c = p.counters();
    report.add({p.name(), c.rx_packets(), c.rx_bytes(), c.rx_missed(), c.rx_errors(), c.rx_nombuf(),
                c.tx_packets(), c.tx_bytes(), c.tx_errors(), c.tx_dropped()});
  }
  return report;
}

Report moduleReport(const Repeated<bess::pb::ModuleInfo>& modules) {
  Report report({{"NAME", "name"},
                 {"CLASS", "class"},
                 {"IGATES", "input_gates"},
                 {"OGATES", "output_gates"},
                 {"TASKS", "tasks"},
                 {"DEAD-ENDS", "dead_ends"},
                 {"DESC", "desc"},
                 {"ARG", "arg"}});
  for (const auto& m : modules) {
    report.add({m.name(), m.class_name(), m.input_gates(), m.output_gates(), m.tasks(),
                m.dead_ends(), m.desc(), unpackJson(m.arg())});
  }
  return report;
}

Report taskReport(const Repeated<bess::pb::TaskInfo>& tasks) {
  Report report({{"MODULE", "module"},
                 {"TASK", "task_id"},
                 {"WORKER", "wid"},
                 {"RATE", "rate"},
                 {"RUNS", "runs"}});
  for (const auto& t : tasks) {
    report.add({t.module(), t.task_id(), orNull(t.wid() >= 0, t.wid()),
                orNull(t.rate() > 0, t.rate()), t.runs()});
  }
  return report;
}

Report connectionReport(const Repeated<bess::pb::ConnectRequest>& connections) {
  Report report({{"FROM", "from"}, {"OGATE", "ogate"}, {"TO", "to"}, {"IGATE", "igate"}});
  for (const auto& c : connections) {
    report.add({c.m1(), c.ogate(), c.m2(), c.igate()});
  }
  return report;
}

Report hookReport(const Repeated<bess::pb::HookInfo>& hooks) {
  Report report({{"HOOK", "hook"},
                 {"MODULE", "module"},
                 {"DIRECTION", "direction"},
                 {"GATE", "gate"},
                 {"PACKETS", "packets"},
                 {"BYTES", "bytes"},
                 {"BATCHES", "batches"},
                 {"FILE", "file"},
                 {"STATE", "state"}});
  for (const auto& h : hooks) {
    const auto& where = h.where();
    report.add({where.hook(), where.module(),
                where.direction() == bess::pb::GATE_OUT ? "out" : "in", where.gate(), h.packets(),
                h.bytes(), h.batches(), orNull(!where.file().empty(), where.file()),
                orNull(!h.state().empty(), h.state())});
  }
  return report;
}

Report pluginReport(const bess::pb::ListPluginsResponse& plugins) {
  Report report({{"PATH", "path"}, {"VERSION", "version"}});
  for (const auto& plugin : plugins.plugins()) {
    report.add({plugin.path(), orNull(!plugin.version().empty(), plugin.version())});
  }
  return report;
}

Report counterReport(const Repeated<bess::pb::CounterValues>& counters) {
  Report report({{"COUNTER", "name"}, {"ID", "id"}, {"WORKER", "wid"}, {"VALUE", "value"}});
  for (const auto& counter : counters) {
    for (const auto& value : counter.values()) {
      report.add({counter.name(), counter.id(), value.wid(), value.value()});
    }
  }
  return report;
}

}  // namespace Sfectl
