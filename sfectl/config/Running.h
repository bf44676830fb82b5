// The state of a running daemon, as far as a configuration speaks of it: a plain copy that can be
// compared and changed.
#pragma once

#include <google/protobuf/any.pb.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "protocol/sfe.pb.h"
#include "sfectl/config/Config.h"

namespace Sfectl {

class Client;

struct RunningPort {
  uint32_t id = 0;
  std::string devargs;
  std::string mac;
  uint32_t mtu = 0;
  uint32_t rxq = 1;
  uint32_t txq = 1;
  bool promiscuous = false;
  bool allMulticast = false;
  uint32_t queueSize = 0;  // 0: the driver's
};

struct RunningModule {
  std::string className;
  google::protobuf::Any arg;
};

struct RunningTask {
  int worker = kNoWorker;
  uint64_t rate = 0;  // 0: no limit
};

struct RunningIntf {
  uint32_t port = 0;
  uint32_t vlan = 0;
  std::string mac;
  uint32_t gateBase = 0;
};

// A module of class Mfib.
struct RunningInstance {
  InstanceConfig settings;  // without bridge_mac: none was set
  std::optional<uint32_t> resolveTask;
  std::optional<uint32_t> cleanupTask;
  std::vector<uint32_t> counterIds;  // in the order of kCounterNames
  std::set<uint64_t> interfaces;
  std::map<RouteKey, RouteConfig> routes;
};

using GateName = std::pair<std::string, uint32_t>;  // a module and its gate

struct Running {
  std::set<std::string> classes;
  std::map<uint32_t, int> workers;  // id: core, -1 when it is not pinned
  std::map<std::string, RunningPort> ports;
  std::map<std::string, RunningModule> modules;
  std::map<GateName, GateName> connections;  // output to input
  std::map<GateName, RunningTask> tasks;
  std::map<std::string, std::map<std::string, RunningIntf>> edges;  // of IntfIn and IntfOut modules
  std::map<std::string, RunningInstance> instances;
  std::map<std::string, uint32_t> counters;
  std::optional<uint32_t> publishPeriod;  // milliseconds

  const RunningPort* portById(uint32_t id) const;
  std::string portName(uint32_t id) const;  // empty when there is none
};

// The names of an instance's event counters behind "MODULE.", and the fields that hold their ids.
struct CounterName {
  const char* name;
  const char* setting;  // column of the state "settings"
  void (sfe::pb::MfibCounterIdArg::*set)(uint32_t);
};
extern const std::vector<CounterName> kCounterNames;

// Asks the daemon for everything. Errors: RuntimeError.
Running readRunning(Client& client);
// The feature toggles that modules have asked for. Errors: RuntimeError.
std::map<std::string, bool> readToggles(Client& client);

// The modules that stand for the parts of a configuration. A module that somebody made by hand
// under another name stands for its part as well, so that nothing is made twice.
class Roles {
 public:
  static constexpr const char* kIn = "in";
  static constexpr const char* kOut = "out";
  static constexpr const char* kSink = "sink";
  static std::string rxName(const std::string& port) { return "rx." + port; }
  static std::string txName(const std::string& port) { return "tx." + port; }
  static std::string instanceName(const std::string& vrf, Family family);

  explicit Roles(const Running& running) : running_(running) {}

  // The module's name, empty when there is none. IntfIn, IntfOut, Sink: the one with the usual
  // name, else the first.
  std::string in() const { return ofClass("IntfIn", kIn); }
  std::string out() const { return ofClass("IntfOut", kOut); }
  std::string sink() const { return ofClass("Sink", kSink); }
  std::string reader(const std::string& port) const;
  std::string sender(const std::string& port) const;
  std::string instance(const std::string& vrf, Family family) const;

  // True for a module of the name and class that a configuration's own modules have.
  bool isOwn(const std::string& module) const;
  // VRF and family of an instance; nothing for a module of another class.
  std::optional<std::pair<std::string, Family>> served(const std::string& module) const;
  // The port of a PortInc or PortOut; empty for others.
  std::string portOf(const std::string& module) const;

 private:
  std::string ofClass(const char* className, const char* usual) const;
  std::string ofPort(const char* className,
                     const std::string& usual,
                     const std::string& port) const;

  const Running& running_;
};

}  // namespace Sfectl
