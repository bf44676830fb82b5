// Event counters per worker, and the thread that calls the counter publication functions.
//
// Threads    | operation                       | control | worker | publisher | others |
//            | bessCounterInc                  |   yes   |  yes   |    yes    |  yes   |
//            | bessCounter, counterId          |   yes   |  yes*  |    yes    |  yes   |
//            | create/destroyCounterRow        |   yes   |   -    |     -     |   -    |
//            | (un)registerCounterUpdate       |   yes   |   -    |    yes    |  yes   |
//            | start/stopCounterPublisher      |   yes   |   -    |     -     |  yes   |
//            | counterPublisherPeriod          |   yes   |  yes*  |    yes    |  yes   |
//            | publishCountersNow              |   yes   |   -    |  ignored  |  yes** |
//              *  takes a mutex: at set-up, not per packet.
//              ** only from a thread that is registered with QSBR and online.
// RCU        : the publisher is a registered QSBR thread: online while it runs callbacks, a
//              quiescent state after each of them, offline between passes. When they have to wait,
//              unregisterCounterUpdate, stopCounterPublisher and publishCountersNow take a calling
//              thread that is online offline: the caller must hold no pointer into an RCU table.
// Cost       : bessCounterInc one load and one relaxed load and store, no locked instruction.
// Invariants :
//   (1) a row, once made, is memory until the process ends: a pointer read from bessCounterDb is
//       always good to read; what a destroyed row still receives is forgotten.
//   (2) no two passes over the callbacks run at the same time.
//   (3) once unregisterCounterUpdate has returned, that callback is not running and is not called
//       again; called from inside that same callback it returns at once, and the call under way is
//       the last one.
//   (4) a callback that throws is logged; the others and the thread go on.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <string>
#include <utility>

namespace SfeModules {

inline constexpr unsigned kMaxCounterRows = 36;
inline constexpr unsigned kMaxCounters = 1024;

// Row of each worker id, null when the worker has none; kMaxCounters counters each.
extern std::array<std::atomic<std::atomic<uint64_t>*>, kMaxCounterRows> bessCounterDb;

// Returns: the row of a worker id; null without one, also for an id outside of the array.
inline std::atomic<uint64_t>* bessCounterRow(int wid) {
  if (wid < 0 || static_cast<unsigned>(wid) >= kMaxCounterRows) {
    return nullptr;
  }
  return bessCounterDb[static_cast<unsigned>(wid)].load(std::memory_order_acquire);
}

// Add `amount`, or 1. Nothing is counted without a row or for an id that is not a counter's.
// Two threads that count into one row at once may lose counts; they harm nothing else.
inline void bessCounterAdd(int wid, uint32_t id, uint64_t amount) {
  std::atomic<uint64_t>* row = bessCounterRow(wid);
  if (row == nullptr || id >= kMaxCounters) {
    return;
  }
  row[id].store(row[id].load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}
inline void bessCounterInc(int wid, uint32_t id) {
  bessCounterAdd(wid, id, 1);
}

// Returns: the counter's value; 0 without a row or for an id that is not a counter's.
inline uint64_t bessCounter(int wid, uint32_t id) {
  const std::atomic<uint64_t>* row = bessCounterRow(wid);
  return row == nullptr || id >= kMaxCounters ? 0 : row[id].load(std::memory_order_relaxed);
}

// Gives a worker a row of zeroes; a row that it has already stays as it is.
void createCounterRow(int wid);

// Takes a worker's row away. Requires: the worker does not run.
void destroyCounterRow(int wid);

// Returns: the id of the counter of that name, the same one at every call; kMaxCounters, which no
// row holds, when all ids are given away (logged).
uint32_t counterId(const std::string& name);

using CounterUpdate = void (*)(void*);
using CounterUpdateHandle = std::list<std::pair<CounterUpdate, void*>>::iterator;

// Has `update(argument)` called once in every pass, in the order of registration.
CounterUpdateHandle registerCounterUpdate(CounterUpdate update, void* argument);

// Ends it. Requires: a handle of registerCounterUpdate, given back once.
void unregisterCounterUpdate(CounterUpdateHandle handle);

// Starts the publisher; one pass per period. When it runs already, only the period changes.
// Requires: period > 0.
void startCounterPublisher(std::chrono::milliseconds period = std::chrono::seconds(1));

// Returns: the period that the last startCounterPublisher set; a second before it.
std::chrono::milliseconds counterPublisherPeriod();

// Ends the publisher after the pass under way. Requires: not called from a callback.
void stopCounterPublisher();

// Runs one pass on the caller's thread; from inside a callback it does nothing.
void publishCountersNow();

}  // namespace SfeModules
