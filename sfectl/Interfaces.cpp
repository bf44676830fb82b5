#include "sfectl/Interfaces.h"

#include <algorithm>

#include "Sfe/Multicast/CounterTableReader.h"
#include "Sfe/Multicast/MountPath.h"
#include "Sfe/OrpSharedMem/EntityManager.h"
#include "protocol/sfe.pb.h"
#include "sfectl/Arguments.h"
#include "sfectl/Errors.h"
#include "sfectl/StateText.h"

namespace Sfectl {
namespace {

using ById = std::map<uint64_t, Interface>;

Interface& named(ById& interfaces, const std::string& name) {
  Interface& intf = interfaces[parseIntf(name, "interface")];
  intf.name = name;
  return intf;
}

std::vector<std::pair<std::string, sfe::pb::IntfTable>> edgeTables(Client& client) {
  std::vector<std::pair<std::string, sfe::pb::IntfTable>> result;
  for (const char* className : {"IntfIn", "IntfOut"}) {
    for (const auto& module : client.modulesOf(className)) {
      const auto answer = client.command(module.name(), "showIntfs", sfe::pb::EmptyIntfArg());
      sfe::pb::IntfTable table;
      if (!answer.data().UnpackTo(&table)) {
        throw RuntimeError(printable(module.name()) + ": the answer is not a table of interfaces");
      }
      result.emplace_back(module.name(), std::move(table));
    }
  }
  return result;
}

void addEdges(Client& client, ById& interfaces) {
  std::map<uint32_t, std::string> ports;
  const auto answer = client.call(&Client::Stub::ListPorts);
  for (const auto& port : answer.ports()) {
    ports[port.id()] = port.name();
  }
  for (const auto& [module, table] : edgeTables(client)) {
    for (const auto& entry : table.intfs()) {
      Interface& intf = named(interfaces, entry.name());
      intf.portId = entry.port();
      intf.vlan = entry.vlan();
      intf.mac = macText(entry.mac());
      if (const auto port = ports.find(entry.port()); port != ports.end()) {
        intf.port = port->second;
      }
    }
  }
}

IntfUse& useOf(Interface& intf, const Instance& instance) {
  const auto found = std::find_if(intf.uses.begin(), intf.uses.end(),
                                  [&](const IntfUse& use) { return use.instance == instance; });
  return found != intf.uses.end() ? *found : intf.uses.emplace_back(IntfUse{instance, false, {}});
}

void addMulticast(Client& client, const Instance& instance, ById& interfaces) {
  const auto text = StateText::fetch(client, instance.module, "interfaces");
  const size_t name = text.column("intf");
  for (size_t i = 0; i < text.size(); ++i) {
    useOf(named(interfaces, std::string(text.row(i)[name])), instance).multicast = true;
  }
}

void addCounters(const Instance& instance, ById& interfaces) {
  const auto path = Sfe::Multicast::counterMountPath(instance.af, L3::VrfName(instance.vrf),
                                                     Sfe::Multicast::IntfCounter::kCollection);
  const std::string system = OrpSharedMem::systemNameFromEnv();
  for (const auto& record : Sfe::Multicast::IntfCounterReader(system, path).snapshot()) {
    const auto intf = interfaces.find(record.intfId().value());
    // An interface that was taken away may still have a record.
    if (intf != interfaces.end()) {
      IntfUse& use = useOf(intf->second, instance);
      if (!use.count) {
        use.count.emplace();
      }
      *use.count += record;
    }
  }
}

}  // namespace

IntfCount& IntfCount::operator+=(const Sfe::Multicast::IntfCounter& record) {
  return *this += {record.pktsIn(),   record.bytesIn(),    record.pktsOut(),
                   record.bytesOut(), record.pktsQueued(), record.pktsDropped()};
}

IntfCount& IntfCount::operator+=(const IntfCount& other) {
  rxPackets += other.rxPackets;
  rxBytes += other.rxBytes;
  txPackets += other.txPackets;
  txBytes += other.txBytes;
  queued += other.queued;
  dropped += other.dropped;
  return *this;
}

IntfCount Interface::total() const {
  IntfCount sum;
  for (const IntfUse& use : uses) {
    if (use.count) {
      sum += *use.count;
    }
  }
  return sum;
}

Interfaces loadInterfaces(Client& client, const std::vector<Instance>& instances) {
  ById byId;
  Interfaces result;
  addEdges(client, byId);
  for (const Instance& instance : instances) {
    addMulticast(client, instance, byId);
  }
  for (const Instance& instance : instances) {
    try {
      addCounters(instance, byId);
    } catch (const std::exception& error) {
      result.faults.push_back("no counters of VRF " + printable(instance.vrf) + ", " +
                              familyText(instance.af) + ": " + printable(error.what()));
    }
  }
  for (auto& [id, intf] : byId) {
    result.list.push_back(std::move(intf));
  }
  return result;
}

std::vector<EdgeDrop> edgeDrops(Client& client) {
  std::vector<EdgeDrop> result;
  for (const auto& [module, table] : edgeTables(client)) {
    for (const auto& drop : table.drops()) {
      result.push_back({module, drop.reason(), drop.packets()});
    }
  }
  return result;
}

}  // namespace Sfectl
