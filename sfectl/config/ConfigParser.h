// The text of a configuration file to a Config.
//
// Errors     : FileError with every problem of the file; nothing of a file with problems is used.
// Security   : the text may come from anywhere: its size and depth are bounded, aliases are not
//              copied.
#pragma once

#include <string>
#include <vector>

#include "sfectl/config/Config.h"
#include "sfectl/config/Problems.h"

namespace Sfectl {

struct ParsedConfig {
  Config config;
  std::vector<std::string> warnings;  // "FILE:LINE:COLUMN: warning: ..."
};

// `file` is what messages call it.
ParsedConfig parseConfig(const std::string& text, const std::string& file);
// Errors: also RuntimeError when the file cannot be read. "-" is standard input.
ParsedConfig readConfigFile(const std::string& path);

// What names refer to and must not share; a part of parseConfig().
void checkConfig(const Config& config, Problems& problems, Problems& warnings);

// Names of ports and VRFs: "" when it is one, else what is expected.
std::string nameFault(const std::string& name, size_t limit);

inline constexpr size_t kMaxPortName = 61;  // "rx." and it make a module's name
inline constexpr size_t kMaxVrfName = 58;   // "mfib4." likewise

}  // namespace Sfectl
