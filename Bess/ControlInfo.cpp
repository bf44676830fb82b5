#include "Bess/ControlInfo.h"

#include <algorithm>

#include "Bess/ModuleBuilder.h"
#include "Bess/ModuleGraph.h"

namespace bess {
namespace {

template <class Gates>
uint32_t connected(const Gates& gates) {
  return static_cast<uint32_t>(
      std::count_if(gates.begin(), gates.end(), [](const auto& gate) { return gate != nullptr; }));
}

}  // namespace

void fillInfo(const WorkerStatus& status, pb::WorkerInfo* info) {
  info->set_wid(static_cast<uint32_t>(status.wid));
  info->set_core(status.core);
  info->set_running(status.running);
  info->set_tasks(static_cast<uint32_t>(status.tasks));
  info->set_silent_drops(status.stats.silentDrops);
  info->set_packets(status.stats.packets);
  info->set_bits(status.stats.bits);
  info->set_rounds(status.stats.rounds);
}

void fillInfo(const Port& port, pb::PortInfo* info) {
  const PortStatus status = port.status();
  info->set_name(port.name());
  info->set_id(port.id());
  info->set_devargs(port.devargs());
  info->set_driver(status.driver);
  info->set_mac(status.mac.data(), status.mac.size());
  info->set_mtu(status.mtu);
  info->set_rxq(port.rxQueues());
  info->set_txq(port.txQueues());
  info->set_queue_size(port.queueSize());
  info->set_link_up(status.linkUp);
  info->set_link_speed_mbps(status.linkSpeedMbps);
  info->set_promiscuous(status.promiscuous);
  info->set_allmulticast(status.allMulticast);
  const PortCounters counters = port.counters();
  pb::PortCounters* out = info->mutable_counters();
  out->set_rx_packets(counters.rxPackets);
  out->set_rx_bytes(counters.rxBytes);
  out->set_rx_missed(counters.rxMissed);
  out->set_rx_errors(counters.rxErrors);
  out->set_rx_nombuf(counters.rxNoBuffer);
  out->set_tx_packets(counters.txPackets);
  out->set_tx_bytes(counters.txBytes);
  out->set_tx_errors(counters.txErrors);
  out->set_tx_dropped(counters.txDropped);
}

void fillInfo(const Module& module, pb::ModuleInfo* info) {
  info->set_name(module.name());
  info->set_class_name(module.moduleBuilder()->className());
  info->set_desc(module.GetDesc());
  *info->mutable_arg() = ModuleGraph::initArg(&module);
  info->set_input_gates(connected(module.igates()));
  info->set_output_gates(connected(module.ogates()));
  info->set_tasks(static_cast<uint32_t>(module.tasks().size()));
  info->set_dead_ends(module.deadEnds());
}

void passError(CommandResponse done, pb::EmptyResponse* response) {
  if (done.has_error()) {
    response->mutable_error()->Swap(done.mutable_error());
  }
}

}  // namespace bess
