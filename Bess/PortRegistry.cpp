#include "Bess/PortRegistry.h"

#include <algorithm>
#include <cctype>
#include <cerrno>

#include "Bess/PortProbe.h"

namespace bess {
namespace {

constexpr size_t kMaxNameLength = 64;

bool isNameByte(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '.';
}

void checkName(const std::string& name) {
  bool good = !name.empty() && name.size() <= kMaxNameLength &&
              std::all_of(name.begin(), name.end(), isNameByte);
  if (!good) {
    throw PortError(EINVAL, "port name \"" + name.substr(0, kMaxNameLength) +
                                "\" is not possible: 1 to 64 letters, digits, '_', '-' and '.'");
  }
}

}  // namespace

PortRegistry& PortRegistry::global() {
  static auto* registry = new PortRegistry;
  return *registry;
}

Port* PortRegistry::create(const PortConfig& config) {
  checkName(config.name);
  if (find(config.name) != nullptr) {
    throw PortError(EEXIST, "port " + config.name + " exists already");
  }
  int probed = config.devargs.empty() ? -1 : findProbedPort(config.devargs);
  Port* holder = probed < 0 ? nullptr : findById(static_cast<uint16_t>(probed));
  if (holder != nullptr) {
    throw PortError(EEXIST, "device \"" + config.devargs + "\" is port " + holder->name() +
                                " already; a second software device needs another number, such as "
                                "net_ring1");
  }
  return ports_.emplace(config.name, Port::open(config)).first->second.get();
}

void PortRegistry::destroy(const std::string& name) {
  Port& port = get(name);
  if (std::string users = port.users(); !users.empty()) {
    throw PortError(EBUSY,
                    "port " + name + " is used by " + users + "; destroy these modules first");
  }
  ports_.erase(name);
}

void PortRegistry::closeAll() {
  ports_.clear();
}

Port* PortRegistry::find(const std::string& name) const {
  auto port = ports_.find(name);
  return port == ports_.end() ? nullptr : port->second.get();
}

Port* PortRegistry::findById(uint16_t id) const {
  for (const auto& [name, port] : ports_) {
    if (port->id() == id) {
      return port.get();
    }
  }
  return nullptr;
}

Port& PortRegistry::get(const std::string& name) const {
  if (Port* port = find(name); port != nullptr) {
    return *port;
  }
  std::string known;
  for (const auto& [other, port] : ports_) {
    known += (known.empty() ? "" : ", ") + other;
  }
  throw PortError(ENOENT, "there is no port \"" + name + "\"" +
                              (known.empty() ? "; none is open" : "; there are: " + known));
}

std::vector<Port*> PortRegistry::ports() const {
  std::vector<Port*> all;
  for (const auto& [name, port] : ports_) {
    all.push_back(port.get());
  }
  return all;
}

}  // namespace bess
