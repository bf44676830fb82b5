// How many callbacks were handed to call_rcu in this process, and how many of them have run.
//
// Threads    : any thread calls anything; no lock.
// Cost       : queued() and ran() are one relaxed atomic addition each, on lines of their own.
// Use        : queued() right before call_rcu, ran() at the end of its callback. What a library
//              hands to call_rcu by itself (a hash table that resizes) is not in the counts.
// Invariants :
//   (1) every count of ran() follows its queued(): a callback runs after a grace period only.
//   (2) a copy of the counts never has more run than queued.
#pragma once

#include <cstdint>

namespace RcuCallbacks {

struct Counts {
  uint64_t queued = 0;
  uint64_t run = 0;
  uint64_t waiting() const { return queued - run; }
};

void queued();
void ran();

// The counts since the process started. Callbacks that run meanwhile count as waiting.
Counts counts();

}  // namespace RcuCallbacks
