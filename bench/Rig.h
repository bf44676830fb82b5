// What a benchmark measures on: the packet library with its workers, and packet graphs on them.
//
// Threads    : the program's main thread is control, and a registered reader.
// Ownership  : the rig before its graphs; a graph destroys its modules.
// Errors     : std::runtime_error with the reason, also when a graph did not do what it was to be
//              measured with.
// Units      : nanoseconds of processor time of the worker. A worker spins, so without other load
//              on its core this is the time that passes; with some it stays the same.
#pragma once

#include <sched.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Bess/ModuleGraph.h"
#include "SfeModules/Mfib.h"
#include "bench/FlowSource.h"
#include "bench/Frames.h"

namespace bench {

inline constexpr const char* kInIntf = "Ethernet100";
inline constexpr const char* kOtherInIntf = "Ethernet101";  // takes multicast, too
inline constexpr gate_idx_t kGate = 1;

uint64_t intfId(const std::string& name);
std::string outIntf(unsigned index);  // Ethernet1 for 0

google::protobuf::Any packed(const google::protobuf::Message& message);
// The answer, when it is no refusal.
CommandResponse run(const std::string& module,
                    const std::string& command,
                    const google::protobuf::Message& arg);

// Lets grace periods pass while control waits.
void sleepFor(double seconds);
// Returns: whether the condition came true in time; asks every 20 microseconds.
bool await(const std::function<bool()>& condition, double seconds);

// Nanoseconds of processor time that a worker has had, once a source has run on it.
double workerNs(int wid);

// The calling thread runs on worker 0's core while it lives. The worker stands still meanwhile when
// it has no task.
class OnTheWorkersCore {
 public:
  OnTheWorkersCore();
  ~OnTheWorkersCore();
  OnTheWorkersCore(const OnTheWorkersCore&) = delete;
  OnTheWorkersCore& operator=(const OnTheWorkersCore&) = delete;

 private:
  cpu_set_t before_;
};

class Rig {
 public:
  // Starts workers 0 .. workers - 1, each on a core of its own where there are enough.
  Rig(unsigned hugeMb, unsigned workers);
  ~Rig();
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;
};

// source -> sink, or source -> mfib -> sink.
class Graph {
 public:
  // The floor of graphs: no module in between.
  explicit Graph(const std::string& prefix);
  // An instance whose incoming interfaces are kInIntf and kOtherInIntf.
  Graph(const std::string& prefix, Mode mode);
  ~Graph();
  Graph(const Graph&) = delete;
  Graph& operator=(const Graph&) = delete;

  FlowSource& source() const { return *source_; }
  SfeModules::Mfib& mfib() const { return *mfib_; }
  const std::string& mfibName() const { return mfibName_; }
  Mode mode() const { return mode_; }
  uint64_t sinkPackets() const;

  // Calls on the instance that must succeed.
  void setSize(const char* command, uint32_t value) const;

  void attach(unsigned lane) const { attachTo(lane, static_cast<int>(lane)); }
  void attachTo(unsigned lane, int wid) const { attachModule(sourceName_, lane, wid); }
  void attachModule(const std::string& name, unsigned task, int wid) const;
  void detach(unsigned lane) const;

  // Nanoseconds per packet of lane 0, once it has sent every flow. `copies`: how many packets come
  // out of each; kUnchecked where that is not a fixed number.
  static constexpr uint64_t kUnchecked = UINT64_MAX;
  double measure(double seconds, uint64_t copies) const;
  // Packets per second of both lanes together, on a worker each.
  double measureBoth(double seconds) const;

 private:
  void make(const std::string& prefix);
  void warm(unsigned lane) const;
  double nsPerPacket(double seconds, unsigned lanes, double* rate) const;

  std::string sourceName_;
  std::string sinkName_;
  std::string mfibName_;
  Mode mode_ = Mode::kIpv4;
  FlowSource* source_ = nullptr;
  SfeModules::Mfib* mfib_ = nullptr;
};

// The routes of flows `first` .. `first + count - 1` of multicastFrame().
struct Routes {
  uint32_t first = 0;
  uint32_t count = 1;
  unsigned fanOut = 1;
  unsigned firstOif = 0;
  const char* iif = kInIntf;
  bool iifRegister = false;
  bool anySource = false;  // (*,G)
};
void addRoutes(const Graph& graph, const Routes& routes);
void deleteRoutes(const Graph& graph, const Routes& routes);

}  // namespace bench
