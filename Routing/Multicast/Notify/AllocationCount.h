// Counts what a thread of a test program takes from the heap. Linking it replaces operator new.
#pragma once

#include <cstdint>

namespace NotifyTest {

uint64_t allocationsOfThisThread();

}  // namespace NotifyTest
