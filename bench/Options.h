// The command line of forwarding_bench.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/Frames.h"

namespace bench {

// Cases are every combination of these.
struct Block {
  std::vector<Mode> modes;
  std::vector<unsigned> sizes;  // bytes
  std::vector<unsigned> fanOuts;
  std::vector<uint32_t> routes;
};

struct Options {
  unsigned runs = 5;
  double seconds = 0.05;  // of one measurement
  std::string json;
  unsigned hugeMb = 0;  // memory in huge pages; 0: ordinary pages
  bool matrix = true;
  bool scenarios = true;
  bool brief = false;  // small tables: shows that everything works, and no more
  std::vector<Block> blocks;
};

extern const char* const kUsage;

// Errors: std::invalid_argument with a text for the user.
Options parseOptions(int argc, char** argv);

}  // namespace bench
