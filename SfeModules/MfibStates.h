// What an instance shows of its inside (Bess/State.h).
//
//   routes      source group iif iif_frr notify fastdrop flags oifs     one row for each route
//   interfaces  intf                                                    enabled for multicast
//   settings    name value
//   cache       source group iif packets oldest_age_ms state            one row for each held key
//   explain     step result detail            what became of a packet now; "SRC GROUP INTF [ttl=N]
//                                             [len=N] [gate_select=N]"
//   metrics     type name help labels value   "[routes=N]": series of at most N routes too
//
// Threads    : control, while workers forward.
// RCU        : online; one read side for each text. The control thread alone changes routes and
//              interfaces, so these are as at one moment; held packets come and go meanwhile.
// Cost       : routes about 0.3 us each; metrics does not depend on the number of routes.
// Invariants :
//   (1) nothing in the instance changes by being looked at: no counter entry, no alert's time.
#pragma once

#include <string>
#include <vector>

#include "Bess/State.h"

namespace SfeModules {

class Mfib;

class MfibStates {
 public:
  // Requires: `mfib` is initialised and outlives them.
  static std::vector<bess::State> of(Mfib& mfib);

  static std::string routes(const Mfib& mfib);
  static std::string interfaces(const Mfib& mfib);
  static std::string settings(const Mfib& mfib);
  static std::string cache(const Mfib& mfib);
};

class MfibMetrics {
 public:
  static std::string text(Mfib& mfib, const std::string& arg);
};

class MfibExplain {
 public:
  // Errors: std::system_error EINVAL for a word that is no address of the family or no interface.
  static std::string text(const Mfib& mfib, const std::string& arg);

 private:
  class Walk;
};

}  // namespace SfeModules
