#include "SfeModules/IntfTable.h"

#include <rte_ether.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "Nynet/VlanIntfId.h"

namespace SfeModules {
namespace {

constexpr uint32_t kMaxVlan = 4094;
constexpr const char* kNames =
    "interfaces of ports are named Ethernet3, Ethernet3/1, Ethernet3.100 or Vlan100";

// Only ports and VLANs carry frames.
bool hasPort(std::string_view name) {
  return name.starts_with("Ethernet") || name.starts_with("Vlan");
}

std::optional<CommandResponse> macRefusal(const std::string& mac) {
  if (mac.size() != RTE_ETHER_ADDR_LEN) {
    return CommandFailure(EINVAL, "mac has %zu bytes, an address has 6", mac.size());
  }
  rte_ether_addr address;
  std::memcpy(address.addr_bytes, mac.data(), RTE_ETHER_ADDR_LEN);
  if (rte_is_zero_ether_addr(&address) || rte_is_multicast_ether_addr(&address)) {
    return CommandFailure(EINVAL, "mac must be a unicast address, not zero and not a group");
  }
  return std::nullopt;
}

}  // namespace

std::optional<CommandResponse> IntfTable::refusal(const sfe::pb::IntfArg& arg) const {
  const char* name = arg.name().c_str();
  auto id = Nynet::IntfId::parse(arg.name());
  if (!id || !hasPort(arg.name())) {
    return CommandFailure(EINVAL, "\"%.64s\" cannot be an interface here; %s", name, kNames);
  }
  if (arg.port() >= RTE_MAX_ETHPORTS) {
    return CommandFailure(EINVAL, "port %u is out of range, ports have numbers from 0 to %d",
                          arg.port(), RTE_MAX_ETHPORTS - 1);
  }
  if (arg.vlan() > kMaxVlan) {
    return CommandFailure(EINVAL, "vlan %u is out of range, 0 (untagged) to %u is possible",
                          arg.vlan(), kMaxVlan);
  }
  if (arg.gate_base() > kMaxGateBase) {
    return CommandFailure(EINVAL, "gate base %u is out of range, 0 to %u is possible",
                          arg.gate_base(), kMaxGateBase);
  }
  uint16_t named = Nynet::VlanIntfId::vlanId(*id);
  if (named != arg.vlan()) {
    return named != 0
               ? CommandFailure(EINVAL, "%s is VLAN %u and vlan says %u; they must agree", name,
                                named, arg.vlan())
               : CommandFailure(EINVAL, "%s is untagged and vlan says %u; name it %s.%u or Vlan%u",
                                name, arg.vlan(), name, arg.vlan(), arg.vlan());
  }
  if (auto refused = macRefusal(arg.mac())) {
    return refused;
  }
  if (withId(id->value()) != nullptr) {
    return CommandFailure(EEXIST, "interface %s exists already; delete it first", name);
  }
  const Intf* holder = at(static_cast<uint16_t>(arg.port()), static_cast<uint16_t>(arg.vlan()));
  if (holder != nullptr) {
    return CommandFailure(EEXIST, "port %u vlan %u is interface %s already", arg.port(), arg.vlan(),
                          holder->id.stringValue().c_str());
  }
  return std::nullopt;
}

CommandResponse IntfTable::add(const sfe::pb::IntfArg& arg) {
  if (auto refused = refusal(arg)) {
    return *refused;
  }
  auto intf = std::make_unique<Intf>();
  intf->id = *Nynet::IntfId::parse(arg.name());
  intf->port = static_cast<uint16_t>(arg.port());
  intf->vlan = static_cast<uint16_t>(arg.vlan());
  intf->gateBase = static_cast<uint16_t>(arg.gate_base());
  std::memcpy(intf->mac.data(), arg.mac().data(), intf->mac.size());
  auto& vlans = ports_[intf->port];
  if (vlans == nullptr) {
    vlans = std::make_unique<Vlans>();
  }
  (*vlans)[intf->vlan] = intf.get();
  byId_.emplace(intf->id.value(), std::move(intf));
  return CommandSuccess();
}

CommandResponse IntfTable::remove(const sfe::pb::IntfNameArg& arg) {
  auto id = Nynet::IntfId::parse(arg.name());
  const Intf* intf = id ? withId(id->value()) : nullptr;
  if (intf == nullptr) {
    return CommandFailure(ENOENT, "there is no interface \"%.64s\"", arg.name().c_str());
  }
  (*ports_[intf->port])[intf->vlan] = nullptr;
  byId_.erase(id->value());
  return CommandSuccess();
}

void IntfTable::show(sfe::pb::IntfTable* out) const {
  std::vector<const Intf*> all;
  for (const auto& [id, intf] : byId_) {
    all.push_back(intf.get());
  }
  std::sort(all.begin(), all.end(), [](const Intf* a, const Intf* b) {
    return std::tie(a->port, a->vlan) < std::tie(b->port, b->vlan);
  });
  for (const Intf* intf : all) {
    sfe::pb::IntfEntry* entry = out->add_intfs();
    entry->set_name(intf->id.stringValue());
    entry->set_id(intf->id.value());
    entry->set_port(intf->port);
    entry->set_vlan(intf->vlan);
    entry->set_gate_base(intf->gateBase);
    entry->set_mac(intf->mac.data(), intf->mac.size());
  }
}

}  // namespace SfeModules
