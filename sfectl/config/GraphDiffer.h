// Ports, modules, connections, interfaces and settings.
#pragma once

#include <map>
#include <set>
#include <string>

#include "sfectl/config/Config.h"
#include "sfectl/config/DifferSteps.h"

namespace Sfectl {

class GraphDiffer {
 public:
  GraphDiffer(const Config& config, DifferSteps& steps);

  void remove();
  void add();

  // The gates of `in` that a VRF's packets leave by begin here.
  static constexpr uint32_t kGatesOfVrf = 3;

 private:
  bool isWanted(const std::string& module) const;
  bool isConfigured(const std::string& module) const;
  bool staysAsItIs(const PortConfig& wanted, const RunningPort& port) const;
  const PortConfig* portConfig(const std::string& name) const;
  const IntfConfig* intfConfig(const std::string& name) const;
  bool sameIntf(const IntfConfig& intf, const RunningIntf& running, bool in) const;

  void chooseGates();
  bool isFree(uint32_t base) const;
  void removeModules();
  void removeInterfaces();
  void removeConnections();
  void removePorts();

  void addPort(const PortConfig& port);
  void addModules();
  void addInstance(const VrfConfig& vrf, Family family);
  uint32_t freeVrfId(const std::string& vrf) const;
  void addConnections();
  void connect(const GateName& from, const GateName& to);
  bool isPart(const std::string& module) const;
  void addInterfaces();
  void addInterface(const std::string& module, const IntfConfig& intf);
  void settings(const VrfConfig& vrf, Family family, const InstanceConfig& wanted);
  void bridgeMac(const std::string& module, const InstanceConfig& wanted);
  void counterIds(const std::string& module);

  const Config& config_;
  DifferSteps& steps_;
  std::map<std::string, uint32_t> gateBases_;  // of VRFs
  std::set<std::string> goingPorts_;           // removed or made anew
};

}  // namespace Sfectl
