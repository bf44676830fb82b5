#include "SfeModules/MrouteDump.h"

#include <array>
#include <charconv>

#include "SfeModules/Mfib.h"
#include "SfeModules/RouteWalk.h"

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

std::string getMroutes(Mfib* mfib, unsigned int af) {
  std::string text;
  if (mfib->mfib_ == nullptr) {
    return text;
  }
  text.reserve(
      mfib->lastDumpBytes_.load(std::memory_order_relaxed));  // most reads repeat the last one
  walkRoutes(*mfib->mfib_, [&text, af](const MfibKey& key, const MfibPvSet& entry) {
    appendRoute(text, key, entry, af);
  });
  mfib->lastDumpBytes_.store(text.size(), std::memory_order_relaxed);
  return text;
}

std::function<std::string()> vrfAfClosureGetMroutes(Mfib* mfib, unsigned int af) {
  return [mfib, af] { return getMroutes(mfib, af); };
}

}  // namespace SfeModules
