#include "SfeModules/MrouteDump.h"

#include <array>

#include "SfeModules/Mfib.h"
#include "SfeModules/RouteWalk.h"

namespace SfeModules {

namespace {

using Orp::TextWriter;

// Names of interfaces: routes share them, so most are still there from the last route.
class IntfNames {
 public:
  const std::string& of(Nynet::IntfId id) {
    Slot& slot = slots_[(id.value() ^ id.value() >> kPortShift) % kSlots];
    if (slot.id != id) {
      slot.id = id;
      slot.name = id.stringValue();
    }
    return slot.name;
  }

 private:
  static constexpr size_t kSlots = 256;
  static constexpr unsigned kPortShift = 20;  // where ids of ports differ
  struct Slot {
    Nynet::IntfId id;
    std::string name = id.stringValue();
  };
  std::array<Slot, kSlots> slots_;
};

// Prints routes into one text.
class RoutePrinter {
 public:
  RoutePrinter(std::string& text, unsigned int af) : text_(text), af_(af) {}

  void print(const MfibKey& key, const MfibPvSet& entry) {
    text_ << "Source: ";
    writeAddr(text_, key.source.data(), af_);
    text_ << " Group: ";
    writeAddr(text_, key.group.data(), af_);
    intfLine("\nIif: ", entry.iif);
    intfLine("\nIifFrr: ", entry.iifFrr);
    intfLine("\nNotify: ", entry.notify);
    intfLine("\nFastdrop: ", entry.fastdrop);
    text_ << "\nToCpu: " << flag(entry.toCpu);
    text_ << "\nIifRegister: " << flag(entry.iifRegister);
    text_ << "\nOifRegister: " << flag(entry.oifRegister);
    text_ << "\nOifs: ";
    for (uint32_t i = 0; i < entry.numOifs; ++i) {
      separate(i);
      text_ << names_.of(entry.oifs[i]);
    }
    text_ << "\nOifGates: ";
    for (uint32_t i = 0; i < entry.numOifs; ++i) {
      separate(i);
      text_ << entry.oifGates[i];
    }
    text_ << '\n';
  }

 private:
  // An interface that a route may do without prints as nothing.
  void intfLine(std::string_view label, Nynet::IntfId id) {
    text_ << label;
    if (!id.isNone()) {
      text_ << names_.of(id);
    }
  }
  static char flag(bool value) { return value ? '1' : '0'; }
  void separate(uint32_t index) {
    if (index > 0) {
      text_ << ' ';
    }
  }

  TextWriter text_;
  const unsigned int af_;
  IntfNames names_;
};

}  // namespace

std::string getMroutes(Mfib* mfib, unsigned int af) {
  std::string text;
  if (mfib->mfib_ == nullptr) {
    return text;
  }
  text.reserve(
      mfib->lastDumpBytes_.load(std::memory_order_relaxed));  // most reads repeat the last one
  {
    RoutePrinter printer(text, af);
    walkRoutes(*mfib->mfib_, [&printer](const MfibKey& key, const MfibPvSet& entry) {
      printer.print(key, entry);
    });
  }
  mfib->lastDumpBytes_.store(text.size(), std::memory_order_relaxed);
  return text;
}

std::function<std::string()> vrfAfClosureGetMroutes(Mfib* mfib, unsigned int af) {
  return [mfib, af] { return getMroutes(mfib, af); };
}

}  // namespace SfeModules
