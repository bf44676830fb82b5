// The packet graph of a soak test, and its control plane:
//
//   generator ─> mfib ─ 0 ─> passed          (Sink)
//                     ─ 1 ─> port1           (PortOut, net_null)
//                     ─ 2 ─> port2           (PortOut, net_null)
//                     ─ 3 ─> sink            (Sink)
//                     ─ 7    leads nowhere
//
// with a "track" hook on both ends of every connection and the flow hook on gates 1 to 3.
//
// Threads    : control's alone, which is the test's main thread, a registered reader.
// Errors     : a refused command throws std::runtime_error with its text.
#pragma once

#include <google/protobuf/message.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "SfeModules/Mfib.h"
#include "SfeModules/PacketFates.h"
#include "tests/soak/FlowHook.h"
#include "tests/soak/Flows.h"
#include "tests/soak/Generator.h"

namespace soak {

struct RouterSettings {
  uint32_t af = 1;
  bool ethernetMode = true;
  int workers = 2;
  bool flap = true;  // multicast comes and goes on kFlappingIntf
  unsigned burstsPerSecond = 2000;
};

class Router {
 public:
  explicit Router(const RouterSettings& settings);
  ~Router();
  Router(const Router&) = delete;
  Router& operator=(const Router&) = delete;

  // The multicast module with its hooks, interfaces, routes and tasks, and its end.
  void createMfib();
  void destroyMfib();
  // Lets packets into the module, and no more.
  void connectGenerator();
  void disconnectGenerator();
  // Takes the module's tasks from their workers.
  void detachMfib();

  // One random change of what the control plane has programmed.
  void changeSomething();

  // No packet is on its way any more when it returns.
  void stopGenerator();
  // Waits until no packet is held.
  bool drain();

  const std::vector<Flow>& flows() const { return flows_; }
  Generator& generator() const { return *generator_; }
  SfeModules::Mfib& mfib() const { return *mfib_; }
  SfeModules::MfibKey keyOf(const std::string& source, const std::string& group) const;
  const FlowCounts& flowCounts() const { return flowCounts_; }

  // What the packets' fates are, over all workers and instances of the module.
  uint64_t fate(SfeModules::Fate fate) const;
  // Of every fate from kDropCutOff on.
  uint64_t drops() const;
  // What a "track" hook has counted.
  uint64_t tracked(const std::string& module, bool output, unsigned gate) const;
  // What a stock module has counted: packets and drops.
  std::pair<uint64_t, uint64_t> counted(const std::string& module) const;

 private:
  void run(const std::string& command, const google::protobuf::Message& arg);
  void programRoute(const char* command, const Route& route);
  void programIntfs(const char* command, const std::vector<std::string>& intfs);
  void programSize(const char* command, uint32_t value);
  void attach(const std::string& module, unsigned task, int wid, unsigned rate);
  void track(const std::string& from, unsigned gate, const std::string& to);
  std::vector<size_t> flowsOf(Kind first, Kind second) const;
  size_t pick(const std::vector<size_t>& from) { return from[random_() % from.size()]; }

  const RouterSettings settings_;
  const std::vector<Flow> flows_;
  const std::vector<size_t> volatileFlows_;
  const std::vector<size_t> replacedFlows_;
  FlowCounts flowCounts_;
  SfeModules::PacketFates fates_;
  Generator* generator_ = nullptr;
  SfeModules::Mfib* mfib_ = nullptr;
  std::mt19937 random_{4711};
  std::vector<bool> programmed_;  // volatile routes that are there, by flow
  bool flappingOn_ = true;
};

}  // namespace soak
