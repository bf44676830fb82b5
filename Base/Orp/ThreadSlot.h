// A small number for each live thread, to index per-thread fields of a shared object.
//
// Threads    : any; no lock is taken.
// Cost       : a thread's later calls are one thread-local load; the first one is a few atomic
// operations. Invariants :
//   (1) two threads that live at the same time never hold the same slot.
//   (2) what a thread wrote happens before what the next holder of its slot does.
//   (3) a slot is given back when its thread ends, after its thread_local objects are destroyed.
#pragma once

#include <optional>

namespace Orp {

inline constexpr unsigned kMaxThreadSlots = 128;

// Returns: the calling thread's slot, below kMaxThreadSlots.
// Errors: fatal when kMaxThreadSlots other threads hold one.
unsigned threadSlot();

// The same for those who can do without a slot. Returns: nothing when all are held.
std::optional<unsigned> tryThreadSlot() noexcept;

}  // namespace Orp
