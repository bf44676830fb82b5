// Shared libraries with module classes.
//
// Threads    : control.
// Errors     : std::system_error: EEXIST loaded already, ENOENT not loaded, EBUSY a class of it has
//              instances, EINVAL the dynamic linker's reason.
// RCU        : unload waits for every pending call_rcu callback (urcu_qsbr_barrier) before the
// library
//              goes; not inside a read-side section.
// Invariants :
//   (1) a class that a library registered while it was loaded is gone after its unload, whether the
//       library deregisters it or not.
//   (2) a library that the dynamic linker keeps in memory after its unload works when it is loaded
//       again.
#pragma once

#include <string>
#include <vector>

// A library says its version in a symbol of C, as long as it likes:
//   extern "C" const char sfePluginVersion[] = "1.2";
struct PluginInfo {
  std::string path;     // resolved
  std::string version;  // empty when the library does not say
};

class Plugin {
 public:
  static void load(const std::string& path);
  static void unload(const std::string& path);
  static void unloadAll();                   // requires: no instances of their classes
  static std::vector<std::string> loaded();  // resolved paths, in the order of loading
  static std::vector<PluginInfo> list();     // in the same order
};

inline void loadPlugin(const std::string& path) {
  Plugin::load(path);
}
inline void unloadPlugin(const std::string& path) {
  Plugin::unload(path);
}
