// A configuration as the text of its file; what has its usual value is left out.
//
// Invariants :
//   (1) parseConfig() reads the text back to the same configuration.
#pragma once

#include <string>

#include "sfectl/config/Config.h"

namespace Sfectl {

std::string writeConfig(const Config& config);

// A text as a YAML scalar, quoted where it would be read as something else.
std::string yamlText(const std::string& text);

}  // namespace Sfectl
