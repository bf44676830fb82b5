// The program as a function: arguments in, text and an exit code out.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace Sfectl {

// Requires: `arguments` without the program's own name.
// Returns: 0 done, 1 refused or failed, 2 the command line is wrong. Results go to `out`, errors to
// `err`.
int run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err);

}  // namespace Sfectl
