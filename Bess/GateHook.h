// Code that sees every batch that passes a gate: counters, captures.
//
// Threads    | operation               | control | worker |
//            | construct, attach, dtor |   yes   |   -    |  workers paused
//            | ProcessBatch            |    -    |  yes   |  several workers at once
//            | stats, state            |   yes   |   -    |  while workers forward
// Ownership  : a gate owns its hooks; they go with it. A hook sees packets and owns none.
// Errors     : a factory throws what createModule's Init may throw; nothing else here throws.
// Cost       : a hook that leaves ProcessBatch alone is found out when it is attached and costs the
//              packet path nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Bess/PacketBatch.h"

struct GateHookStats {
  uint64_t packets = 0;
  uint64_t bytes = 0;
  uint64_t batches = 0;
};

class GateHook {
 public:
  // Hooks of one gate run in the order of their priorities, equal ones in the order of attachment.
  explicit GateHook(std::string name, int priority = 0)
      : name_(std::move(name)), priority_(priority) {}
  virtual ~GateHook();
  GateHook(const GateHook&) = delete;
  GateHook& operator=(const GateHook&) = delete;

  const std::string& name() const { return name_; }
  const std::string& arg() const { return arg_; }  // what it was attached with
  int priority() const { return priority_; }

  // The batch handler. The default does nothing.
  virtual void ProcessBatch(const bess::PacketBatch* batch);  // NOLINT: a module's naming
  virtual GateHookStats stats() const;
  // What else the hook says of itself, for people.
  virtual std::string state() const;

  // Whether the object's class has a batch handler of its own.
  bool handlesBatches() const;

 private:
  friend class ModuleGraph;

  const std::string name_;
  const int priority_;
  std::string arg_;
};

// The hooks that can be attached by name.
//
// Threads    : registration at load time and on the control thread; the rest on the control thread.
class GateHookRegistry {
 public:
  // `arg` is free text that the kind of hook understands, such as the file a capture writes.
  using Factory = std::function<std::unique_ptr<GateHook>(const std::string& arg)>;

  // Returns: true, so that a static object can be initialised with it. A second hook of one name is
  // fatal.
  static bool registerHook(const std::string& name, Factory factory);
  static bool deregisterHook(const std::string& name);
  // Returns: null when there is no hook of that name. Errors: what the factory throws.
  static std::unique_ptr<GateHook> create(const std::string& name, const std::string& arg);
  static std::vector<std::string> names();
};
