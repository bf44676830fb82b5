// What a module is told about the run it is called in.
//
// Threads    : one object per worker, used by that worker alone; a unit test makes its own.
// Units      : currentNs is monotonic time in nanoseconds, read once per scheduler round.
#pragma once

#include <cstdint>

#include "Bess/Types.h"

class Task;

struct Context {
  Task* task = nullptr;  // the running task: batch storage and run queue
  int wid = -1;          // the worker
  uint64_t currentNs = 0;
  gate_idx_t currentIgate = 0;  // the gate that the batch at hand came in by; 0 in RunTask

  // Totals since the context was made, published by the worker after each round.
  uint64_t silentDrops = 0;  // packets that left through a gate that leads nowhere
  uint64_t batches = 0;      // batches handed to modules
};
