// The small numbers every part of the framework agrees on.
#pragma once

#include <cstdint>

using gate_idx_t = uint16_t;
using task_id_t = uint16_t;

// Worker ids are 0 .. MAX_WORKERS - 1.
inline constexpr int MAX_WORKERS =
    36;  // NOLINT(readability-identifier-naming): fatal texts name it
inline constexpr int kMaxWorkers = MAX_WORKERS;

// Gates of one module and direction are 0 .. kMaxGates - 1.
inline constexpr gate_idx_t kMaxGates = 8192;

// A gate that no module has: what is sent there is dead-ended.
inline constexpr gate_idx_t DROP_GATE = kMaxGates;  // NOLINT(readability-identifier-naming)

inline constexpr unsigned kMaxTasksPerModule = 64;
inline constexpr task_id_t kInvalidTaskId = 0xFFFF;
