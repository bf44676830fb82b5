// Which revision of the tree this program was built from. Its source is written by the build.
#pragma once

namespace Bessd {

// As git describes it, such as "0a73c694862c-dirty"; "unknown" for a tree without history.
const char* revision();

}  // namespace Bessd
