#include <memory>
#include <ostream>

#include "sfectl/Interfaces.h"
#include "sfectl/Show.h"

namespace Sfectl {
namespace {

// "ipv4,ipv6"; outside the default VRF "ipv4@red".
std::string multicastText(const Interface& intf) {
  std::string text;
  for (const IntfUse& use : intf.uses) {
    if (use.multicast) {
      text += text.empty() ? "" : ",";
      text += familyText(use.instance.af);
      text += use.instance.vrf == kDefaultVrf ? "" : "@" + use.instance.vrf;
    }
  }
  return text;
}

Json orNull(bool present, const Json& value) {
  return present ? value : Json(nullptr);
}

Report textReport(const std::vector<Interface>& interfaces) {
  Report report({{"INTF", "intf"},
                 {"PORT", "port"},
                 {"VLAN", "vlan"},
                 {"MAC", "mac"},
                 {"MULTICAST", "multicast"},
                 {"RX-PACKETS", "rx_packets"},
                 {"RX-BYTES", "rx_bytes"},
                 {"TX-PACKETS", "tx_packets"},
                 {"TX-BYTES", "tx_bytes"},
                 {"QUEUED", "queued"},
                 {"DROPPED", "dropped"}});
  for (const Interface& intf : interfaces) {
    const IntfCount count = intf.total();
    report.add({intf.name, intf.port, orNull(intf.vlan != 0, intf.vlan), intf.mac,
                multicastText(intf), count.rxPackets, count.rxBytes, count.txPackets, count.txBytes,
                count.queued, count.dropped});
  }
  return report;
}

void addCount(Json& object, const IntfCount& count) {
  object["rx_packets"] = count.rxPackets;
  object["rx_bytes"] = count.rxBytes;
  object["tx_packets"] = count.txPackets;
  object["tx_bytes"] = count.txBytes;
  object["queued"] = count.queued;
  object["dropped"] = count.dropped;
}

Json intfJson(const Interface& intf) {
  Json object{{"intf", intf.name}};
  if (intf.portId) {
    object["port"] = intf.port;
    object["port_id"] = *intf.portId;
    object["vlan"] = intf.vlan;
    object["mac"] = intf.mac;
  }
  addCount(object, intf.total());
  object["instances"] = Json::array();
  for (const IntfUse& use : intf.uses) {
    Json one{{"vrf", use.instance.vrf},
             {"family", familyText(use.instance.af)},
             {"module", use.instance.module},
             {"multicast", use.multicast}};
    if (use.count) {
      addCount(one, *use.count);
    }
    object["instances"].push_back(std::move(one));
  }
  return object;
}

void showIntf(Session& session, const CounterFilter& filter) {
  Client& client = session.client();
  const Interfaces interfaces = loadInterfaces(client, multicastInstances(client, filter));
  if (session.json) {
    Json list = Json::array();
    for (const Interface& intf : interfaces.list) {
      list.push_back(intfJson(intf));
    }
    session.print(list);
  } else {
    session.print(textReport(interfaces.list));
  }
  for (const std::string& fault : interfaces.faults) {
    session.err() << "sfectl: " << fault << std::endl;
  }
}

}  // namespace

void addShowIntf(CLI::App& show, Session& session) {
  auto* command = show.add_subcommand("intf", "Interfaces: port, VLAN, multicast, counters");
  auto filter = addInstanceFilter(command);
  session.bind(command, [filter](Session& s) { showIntf(s, *filter); });
}

}  // namespace Sfectl
