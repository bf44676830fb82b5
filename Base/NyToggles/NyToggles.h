// Feature toggles: named switches, read from one JSON file per owner in the toggle directory.
//
//     /etc/sfe/toggles/Mroute.json    {"MfaWcFwd": true}
//
// Threads    : any. The file is read at each call: callers keep the answer.
// Errors     : a missing file or name is the default, silently. A file that cannot be read or
// understood, or a
//              value that is not true or false, is the default and a warning that names file and
//              reason.
#pragma once

#include <string>
#include <vector>

// Returns: the state of `toggle` in the file `owner` of the toggle directory.
// An `owner` that would leave the directory (has a '/', is "..") is refused with a warning.
bool getToggleState(const char* toggle, const char* owner, bool defaultState);

// The directory is $SFE_TOGGLES, else /etc/sfe/toggles, until it is set here.
void setToggleDirectory(std::string path);

// What was asked for so far, each toggle with its last answer, by owner and name.
struct AskedToggle {
  std::string owner;
  std::string name;
  bool value;
};
std::vector<AskedToggle> askedToggles();
