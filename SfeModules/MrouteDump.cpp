#include "SfeModules/MrouteDump.h"

#include <array>
#include <charconv>

#include "SfeModules/Mfib.h"

namespace SfeModules {

namespace {

void appendNumber(std::string& text, uint32_t value) {
  std::array<char, 12> digits;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
  auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  text.append(digits.data(), end);
}

// An interface that a route may do without prints as nothing.
void appendIntfLine(std::string& text, std::string_view label, Nynet::IntfId id) {
  text += label;
  if (id.value() != 0) {
    id.appendTo(text);
  }
  text += '\n';
}

void appendFlagLine(std::string& text, std::string_view label, bool flag) {
  text += label;
  text += flag ? '1' : '0';
  text += '\n';
}

void appendRoute(std::string& text, const MfibKey& key, const MfibPvSet& entry, unsigned int af) {
  text += "Source: ";
  appendAddr(text, key.source.data(), af);
  text += " Group: ";
  appendAddr(text, key.group.data(), af);
  text += '\n';
  appendIntfLine(text, "Iif: ", entry.iif);
  appendIntfLine(text, "IifFrr: ", entry.iifFrr);
  appendIntfLine(text, "Notify: ", entry.notify);
  appendIntfLine(text, "Fastdrop: ", entry.fastdrop);
  appendFlagLine(text, "ToCpu: ", entry.toCpu);
  appendFlagLine(text, "IifRegister: ", entry.iifRegister);
  appendFlagLine(text, "OifRegister: ", entry.oifRegister);
  text += "Oifs: ";
  for (uint32_t i = 0; i < entry.numOifs; ++i) {
    if (i > 0) {
      text += ' ';
    }
    entry.oifs[i].appendTo(text);
  }
  text += "\nOifGates: ";
  for (uint32_t i = 0; i < entry.numOifs; ++i) {
    if (i > 0) {
      text += ' ';
    }
    appendNumber(text, entry.oifGates[i]);
  }
  text += '\n';
}

}  // namespace

namespace {

// Routes that are printed together: what each is made of comes from memory while the others are
// looked at.
class RouteGroup {
 public:
  bool full() const { return count_ == kRoutes; }

  void add(const MfibKey& key, const std::shared_ptr<MfibPvSet>& entry) {
    keys_[count_] = &key;
    values_[count_] = &entry;
    __builtin_prefetch(&entry);
    ++count_;
  }

  // RCU: the read side in which the routes were added.
  void print(std::string& text, unsigned int af) {
    for (size_t i = 0; i < count_; ++i) {
      __builtin_prefetch(values_[i]->get());
    }
    for (size_t i = 0; i < count_; ++i) {
      entries_[i] = *values_[i];  // holds the entry while it is printed
      if (entries_[i] != nullptr) {
        __builtin_prefetch(entries_[i]->oifs.get());
        __builtin_prefetch(entries_[i]->oifGates.get());
      }
    }
    for (size_t i = 0; i < count_; ++i) {
      if (entries_[i] != nullptr) {
        appendRoute(text, *keys_[i], *entries_[i], af);
      }
      entries_[i] = nullptr;
    }
    count_ = 0;
  }

 private:
  static constexpr size_t kRoutes = 32;
  std::array<const MfibKey*, kRoutes> keys_{};
  std::array<const std::shared_ptr<MfibPvSet>*, kRoutes> values_{};
  std::array<std::shared_ptr<MfibPvSet>, kRoutes> entries_;
  size_t count_ = 0;
};

}  // namespace

std::string getMroutes(Mfib* mfib, unsigned int af) {
  std::string text;
  if (mfib->mfib_ == nullptr) {
    return text;
  }
  text.reserve(
      mfib->lastDumpBytes_.load(std::memory_order_relaxed));  // most reads repeat the last one
  RouteGroup group;
  for (auto it = mfib->mfib_->begin(); it != mfib->mfib_->end(); ++it) {
    if (group.full()) {
      group.print(text, af);
    }
    group.add(it.key(), it.value());
  }
  group.print(text, af);
  mfib->lastDumpBytes_.store(text.size(), std::memory_order_relaxed);
  return text;
}

std::function<std::string()> vrfAfClosureGetMroutes(Mfib* mfib, unsigned int af) {
  return [mfib, af] { return getMroutes(mfib, af); };
}

}  // namespace SfeModules
