#include "protocol/modules.pb.h"
#include "sfectl/config/Running.h"

namespace Sfectl {
namespace {

constexpr uint32_t kAfIpv4 = 1;

}  // namespace

const RunningPort* Running::portById(uint32_t id) const {
  for (const auto& [name, port] : ports) {
    if (port.id == id) {
      return &port;
    }
  }
  return nullptr;
}

std::string Running::portName(uint32_t id) const {
  for (const auto& [name, port] : ports) {
    if (port.id == id) {
      return name;
    }
  }
  return "";
}

std::string Roles::instanceName(const std::string& vrf, Family family) {
  const std::string name = family == Family::kIpv4 ? "mfib4" : "mfib6";
  return vrf == kDefaultVrfName ? name : name + "." + vrf;
}

std::string Roles::ofClass(const char* className, const char* usual) const {
  std::string first;
  for (const auto& [name, module] : running_.modules) {
    if (module.className == className && (first.empty() || name == usual)) {
      first = name;
    }
  }
  return first;
}

std::string Roles::portOf(const std::string& module) const {
  const auto found = running_.modules.find(module);
  if (found == running_.modules.end()) {
    return "";
  }
  bess::pb::PortIncArg in;
  bess::pb::PortOutArg out;
  return found->second.arg.UnpackTo(&in)    ? in.port()
         : found->second.arg.UnpackTo(&out) ? out.port()
                                            : "";
}

std::string Roles::ofPort(const char* className,
                          const std::string& usual,
                          const std::string& port) const {
  std::string first;
  for (const auto& [name, module] : running_.modules) {
    if (module.className == className && portOf(name) == port && (first.empty() || name == usual)) {
      first = name;
    }
  }
  return first;
}

std::string Roles::reader(const std::string& port) const {
  return ofPort("PortInc", rxName(port), port);
}

std::string Roles::sender(const std::string& port) const {
  return ofPort("PortOut", txName(port), port);
}

std::optional<std::pair<std::string, Family>> Roles::served(const std::string& module) const {
  const auto found = running_.modules.find(module);
  sfe::pb::MfibArg arg;
  if (found == running_.modules.end() || !found->second.arg.UnpackTo(&arg)) {
    return std::nullopt;
  }
  return std::make_pair(arg.vrfname(), arg.af() == kAfIpv4 ? Family::kIpv4 : Family::kIpv6);
}

std::string Roles::instance(const std::string& vrf, Family family) const {
  std::string first;
  for (const auto& [name, module] : running_.modules) {
    if (served(name) == std::make_pair(vrf, family) &&
        (first.empty() || name == instanceName(vrf, family))) {
      first = name;
    }
  }
  return first;
}

bool Roles::isOwn(const std::string& module) const {
  const auto found = running_.modules.find(module);
  if (found == running_.modules.end()) {
    return false;
  }
  const std::string& className = found->second.className;
  if (const auto what = served(module)) {
    return module == instanceName(what->first, what->second);
  }
  return (className == "IntfIn" && module == kIn) || (className == "IntfOut" && module == kOut) ||
         (className == "Sink" && module == kSink) ||
         (className == "PortInc" && module == rxName(portOf(module))) ||
         (className == "PortOut" && module == txName(portOf(module)));
}

}  // namespace Sfectl
