#include "sfectl/config/ConfigFields.h"

#include <algorithm>
#include <stdexcept>

#include "Nynet/IntfId.h"
#include "Nynet/VlanIntfId.h"
#include "sfectl/Arguments.h"
#include "sfectl/Errors.h"
#include "sfectl/RouteArgs.h"

namespace Sfectl {
namespace {

using Node = YAML::Node;

bool isAny(const std::string& bytes) {
  return bytes.find_first_not_of('\0') == std::string::npos;
}

}  // namespace

std::optional<std::string> ConfigFields::mac(const Node& node) {
  const auto word = reader_.text(node, "the hardware address");
  if (!word.has_value()) {
    return std::nullopt;
  }
  std::string bytes;
  try {
    bytes = parseMac(*word);
  } catch (const UsageError&) {
    reader_.wrong(node, inQuotes(*word) +
                            " is not a hardware address; expected a form like 02:00:00:00:00:01");
    return std::nullopt;
  }
  if (isAny(bytes) || (bytes[0] & 1) != 0) {
    reader_.wrong(node, inQuotes(*word) + " is " + (isAny(bytes) ? "zero" : "a group's address") +
                            "; expected an interface's own, such as 02:00:00:00:00:01");
    return std::nullopt;
  }
  return bytes;
}

std::string ConfigFields::devargs(const Node& node) {
  const auto word = reader_.text(node, "devargs");
  if (word.has_value() && word->empty()) {
    reader_.wrong(node, "devargs is empty; expected a device, such as net_af_packet0,iface=eth0");
  }
  return word.value_or("");
}

std::optional<int> ConfigFields::worker(const Node& node) {
  if (node.IsScalar() && node.Scalar() == kNoneWord) {
    return kNoWorker;
  }
  const auto id = reader_.number(node, "worker", 0, kMaxWorkerId);
  return id.has_value() ? std::optional<int>(static_cast<int>(*id)) : std::nullopt;
}

std::vector<int> ConfigFields::workers(const Node& node) {
  std::vector<int> result;
  const auto add = [&](const Node& item) {
    if (const auto id = worker(item)) {
      result.push_back(*id);
    }
  };
  if (node.IsScalar()) {
    add(node);
  } else {
    reader_.list(node, "worker", add);
    if (node.IsSequence() && node.size() == 0) {
      reader_.wrong(node, "worker is an empty list; expected the worker of each receive queue");
    }
  }
  return result;
}

std::set<Family> ConfigFields::families(const Node& node) {
  const std::set<Family> both{Family::kIpv4, Family::kIpv6};
  if (node.IsScalar()) {
    if (node.Scalar() == "ipv4") {
      return {Family::kIpv4};
    }
    if (node.Scalar() == "ipv6") {
      return {Family::kIpv6};
    }
    if (const auto on = YamlReader::asBoolean(node)) {
      return *on ? both : std::set<Family>();
    }
  }
  reader_.wrong(node, "multicast is " + nodeText(node) + "; expected true, false, ipv4 or ipv6");
  return both;
}

std::set<Family> ConfigFields::familyList(const Node& node) {
  std::set<Family> result;
  reader_.list(node, "families", [&](const Node& item) {
    if (const auto index = reader_.word(item, "a family", {"ipv4", "ipv6"})) {
      if (!result.insert(kFamilies[*index]).second) {
        reader_.wrong(item, std::string(familyWord(kFamilies[*index])) +
                                " appears twice; expected each family once");
      }
    }
  });
  if (node.IsNull() || (node.IsSequence() && node.size() == 0)) {
    reader_.wrong(node, "families is empty; expected ipv4, ipv6 or both");
  }
  return result;
}

uint32_t ConfigFields::vlanOf(uint64_t intf) {
  return Nynet::VlanIntfId::vlanId(Nynet::IntfId(intf));
}

bool ConfigFields::canHavePort(const std::string& name) {
  return name.starts_with("Ethernet") || name.starts_with("Vlan");
}

std::optional<uint64_t> ConfigFields::intfId(const Node& node,
                                             const std::string& what,
                                             const std::string& name) {
  const auto id = Nynet::IntfId::parse(name);
  if (!id.has_value()) {
    reader_.wrong(node, what + " " + inQuotes(name) +
                            " is not possible; expected Ethernet3, Ethernet3/1, Ethernet3.100, "
                            "Vlan100, Register0, ...");
    return std::nullopt;
  }
  return id->value();
}

void ConfigFields::instance(KeyReader& keys, InstanceConfig& out) {
  keys.take("bridge_mac", [&](const Node& node) { out.bridgeMac = mac(node); });
  const auto number = [&](const char* key, uint32_t& value, uint32_t low) {
    keys.take(key, [&](const Node& node) {
      value = reader_.number(node, key, low, kMaxNumber).value_or(value);
    });
  };
  number("suppression_timer", out.suppressionTimer, 0);
  number("cache_entries", out.cacheEntries, 0);
  number("cache_packets", out.cachePackets, 0);
  number("cache_expiry", out.cacheExpiry, 0);
  number("max_routes", out.maxRoutes, 0);
  number("cleanup_rate", out.cleanupRate, 1);
  keys.take("worker", [&](const Node& node) { out.worker = worker(node); });
  keys.take("extra_interfaces", [&](const Node& node) {
    out.extraInterfaces.clear();
    reader_.list(node, "extra_interfaces", [&](const Node& item) {
      const auto name = reader_.text(item, "an interface's name");
      if (name.has_value() && intfId(item, "the interface's name", *name).has_value()) {
        out.extraInterfaces.push_back(*name);
      }
    });
  });
}

std::optional<std::string> ConfigFields::source(const Node& node) {
  const auto word = reader_.text(node, "source");
  if (!word.has_value()) {
    return std::nullopt;
  }
  if (*word == "*") {
    return "";
  }
  try {
    const Address address = parseAddress(*word, "source");
    if (!address.isMulticast()) {
      return address.bytes;
    }
    reader_.wrong(node, "source " + inQuotes(*word) +
                            " is multicast; expected a sender's address, or '*' for any");
  } catch (const UsageError&) {
    reader_.wrong(node, "source " + inQuotes(*word) +
                            " is not an address; expected a form like 10.0.0.2 or 2001:db8::1, or "
                            "'*' for any");
  }
  return std::nullopt;
}

std::optional<std::string> ConfigFields::group(const Node& node) {
  const auto word = reader_.text(node, "group");
  if (!word.has_value()) {
    return std::nullopt;
  }
  try {
    const Address address = parseAddress(*word, "group");
    if (address.isMulticast()) {
      return address.bytes;
    }
    reader_.wrong(node, "group " + inQuotes(*word) +
                            " is not multicast; expected an address of 224.0.0.0/4 or ff00::/8");
  } catch (const UsageError&) {
    reader_.wrong(node, "group " + inQuotes(*word) +
                            " is not an address; expected a form like 239.1.1.1 or ff15::1");
  }
  return std::nullopt;
}

void ConfigFields::oif(const Node& node, VrfRoute& out) {
  const auto word = reader_.text(node, "an outgoing interface");
  if (!word.has_value()) {
    return;
  }
  Endpoint endpoint;
  try {
    endpoint = parseEndpoint(*word, kRouteGate);
  } catch (const UsageError&) {
    reader_.wrong(node, inQuotes(*word) +
                            " is not an outgoing interface; expected NAME or NAME:GATE, a gate of "
                            "0 to " +
                            std::to_string(kMaxGate));
    return;
  }
  const auto id = intfId(node, "outgoing interface", endpoint.name);
  if (!id.has_value()) {
    return;
  }
  if (!out.route.oifs.emplace(*id, endpoint.gate).second) {
    reader_.wrong(node, "outgoing interface " + inQuotes(*word) +
                            " appears twice; expected each interface and gate once");
  }
  out.interfaces.push_back({*id, "oifs", placeOf(node)});
}

void ConfigFields::flags(const Node& node, RouteConfig& out) {
  bool* const values[] = {&out.toCpu, &out.iifRegister, &out.oifRegister};
  reader_.list(node, "flags", [&](const Node& item) {
    const auto index = reader_.word(item, "a flag", {"to_cpu", "iif_register", "oif_register"});
    if (!index.has_value()) {
      return;
    }
    if (*values[*index]) {
      reader_.wrong(item, "flag " + inQuotes(item.Scalar()) + " appears twice; expected each once");
    }
    *values[*index] = true;
  });
}

// Source and group together. Requires: out.key.source is what the file says.
bool ConfigFields::checkKey(const Node& node,
                            const std::optional<std::string>& group,
                            RouteConfig& out) {
  if (!group.has_value()) {
    return false;
  }
  out.key.group = *group;
  if (out.key.source.empty()) {
    out.key.source.assign(group->size(), '\0');
  }
  if (out.key.source.size() != group->size()) {
    reader_.wrong(node, "source " + addressText(out.key.source) + " and group " +
                            addressText(*group) +
                            " are of different families; expected two IPv4 or two IPv6 addresses");
    return false;
  }
  return true;
}

bool ConfigFields::route(const Node& node, VrfRoute& out) {
  out.place = out.vrfPlace = placeOf(node);
  bool good = true;
  std::optional<std::string> to;
  Node sourceNode = node;
  KeyReader keys(reader_, node, "a route");
  keys.take("source", [&](const Node& value) {
    sourceNode.reset(value);
    const auto bytes = source(value);
    good = bytes.has_value();
    out.route.key.source = bytes.value_or("");
  });
  keys.need("group", "group: ADDRESS, such as 239.1.1.1",
            [&](const Node& value) { to = group(value); });
  keys.take("vrf", [&](const Node& value) {
    out.vrfPlace = placeOf(value);
    out.vrf = reader_.text(value, "vrf").value_or(kDefaultVrfName);
  });
  const auto intf = [&](const char* key, uint64_t& id) {
    return [&, key](const Node& value) {
      const auto name = reader_.text(value, key);
      const auto parsed = name.has_value() ? intfId(value, key, *name) : std::nullopt;
      id = parsed.value_or(0);
      if (parsed.has_value()) {
        out.interfaces.push_back({id, key, placeOf(value)});
      }
    };
  };
  keys.need("iif", "iif: NAME, the interface where the packets arrive", intf("iif", out.route.iif));
  keys.take("oifs", [&](const Node& value) {
    reader_.list(value, "oifs", [&](const Node& item) { oif(item, out); });
    if (value.IsSequence() && value.size() > kMaxOifs) {
      reader_.wrong(value, std::to_string(value.size()) +
                               " outgoing interfaces; a route holds at most " +
                               std::to_string(kMaxOifs));
    }
  });
  keys.take("iif_frr", intf("iif_frr", out.route.iifFrr));
  keys.take("notify", intf("notify", out.route.notify));
  keys.take("fastdrop", intf("fastdrop", out.route.fastdrop));
  keys.take("flags", [&](const Node& value) { flags(value, out.route); });
  keys.finish();
  return checkKey(sourceNode, to, out.route) && good;
}

}  // namespace Sfectl
