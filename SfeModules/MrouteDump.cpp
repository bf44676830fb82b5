#include "SfeModules/MrouteDump.h"

#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

#include "SfeModules/Assert.h"
#include "SfeModules/Mfib.h"
#include "SfeModules/RouteWalk.h"

namespace SfeModules {

namespace {

// A short text that is copied whole, whatever its length.
template <size_t kRoom>
struct ShortText {
  std::array<char, kRoom> chars{};
  uint8_t length = 0;
};

// Names of interfaces: routes share them, so most are still there from the last route.
class IntfNames {
 public:
  static constexpr size_t kRoom = 32;
  using Name = ShortText<kRoom>;

  const Name& of(Nynet::IntfId id) {
    Slot& slot = slots_[(id.value() ^ id.value() >> kPortShift) % kSlots];
    if (slot.id != id) {
      fill(slot, id);
    }
    return slot.name;
  }

  IntfNames() {
    for (Slot& slot : slots_) {
      fill(slot, {});
    }
  }

 private:
  static constexpr size_t kSlots = 256;
  static constexpr unsigned kPortShift = 20;  // where ids of ports differ
  struct Slot {
    Nynet::IntfId id;
    Name name;
  };

  static void fill(Slot& slot, Nynet::IntfId id) {
    const std::string text = id.stringValue();
    SFE_ASSERT(text.size() <= kRoom);
    slot.id = id;
    slot.name.length = static_cast<uint8_t>(text.copy(slot.name.chars.data(), kRoom));
  }

  std::array<Slot, kSlots> slots_;
};

// The decimal text of a byte.
using Octets = std::array<ShortText<4>, 256>;
constexpr Octets kOctets = [] {
  Octets octets{};
  for (unsigned value = 0; value < octets.size(); ++value) {
    ShortText<4>& text = octets[value];
    for (unsigned part : {100U, 10U, 1U}) {
      if (value >= part || part == 1) {
        text.chars[text.length++] = static_cast<char>('0' + value / part % 10);
      }
    }
  }
  return octets;
}();

// What most routes have between their incoming and their outgoing interfaces, which differs from
// others in the three digits alone.
constexpr char kPlainMiddle[] =
    "\nIifFrr: \nNotify: \nFastdrop: \nToCpu: 0\nIifRegister: 0\nOifRegister: 0\nOifs: ";
constexpr size_t kFirstFlag = std::string_view(kPlainMiddle).find('0');
constexpr size_t kSecondFlag = std::string_view(kPlainMiddle).find('0', kFirstFlag + 1);
constexpr size_t kThirdFlag = std::string_view(kPlainMiddle).find('0', kSecondFlag + 1);

// The steps write at `at`, where there is room for them, and return where they ended.
template <size_t kSize>
char* put(char* at, const char (&literal)[kSize]) {
  std::memcpy(at, literal, kSize - 1);
  return at + kSize - 1;
}
template <size_t kRoom>
char* put(char* at, const ShortText<kRoom>& text) {
  std::memcpy(at, text.chars.data(), kRoom);
  return at + text.length;
}

char* putNumber(char* at, uint32_t value) {
  constexpr ptrdiff_t kDigits = 10;
  return value < kOctets.size() ? put(at, kOctets[value])
                                : std::to_chars(at, at + kDigits, value).ptr;
}

// As addrArrayToStr() has it.
char* putAddr(char* at, const AddrBytes& addr, unsigned int af) {
  constexpr unsigned kAfIpv6 = 2;
  constexpr char kHex[] = "0123456789abcdef";
  if (af == kAfIpv4) {
    for (unsigned i = 0; i < kIpv4AddrLen; ++i) {
      at = put(at, kOctets[addr[i]]);
      *at++ = '.';
    }
    return at - 1;
  }
  if (af != kAfIpv6) {
    for (const uint8_t byte : addr) {
      at = put(at, kOctets[byte]);
    }
    return at;
  }
  for (unsigned i = 0; i < kIpv6AddrLen; i += 2) {
    *at++ = kHex[addr[i] >> 4];
    *at++ = kHex[addr[i] & 0xf];
    *at++ = kHex[addr[i + 1] >> 4];
    *at++ = kHex[addr[i + 1] & 0xf];
    *at++ = ':';
  }
  return at - 1;
}

// Prints routes into a buffer, and the full buffer into the text.
class RoutePrinter {
 public:
  RoutePrinter(std::string& text, unsigned int af) : text_(text), af_(af) {}

  void print(const MfibKey& key, const MfibPvSet& entry) {
    char* at = makeRoom(end_);
    at = put(at, "Source: ");
    at = putAddr(at, key.source, af_);
    at = put(at, " Group: ");
    at = putAddr(at, key.group, af_);
    at = putIntf(put(at, "\nIif: "), entry.iif);
    at = putMiddle(at, entry);
    for (uint32_t i = 0; i < entry.numOifs; ++i) {
      at = put(makeRoom(at), names_.of(entry.oifs()[i]));
      *at++ = ' ';
    }
    at -= entry.numOifs > 0 ? 1 : 0;
    at = put(at, "\nOifGates: ");
    for (uint32_t i = 0; i < entry.numOifs; ++i) {
      at = putNumber(makeRoom(at), entry.oifGates()[i]);
      *at++ = ' ';
    }
    at -= entry.numOifs > 0 ? 1 : 0;
    *at++ = '\n';
    end_ = at;
  }

  // Completes the text.
  void finish() { flush(end_); }

 private:
  // What comes before the first outgoing interface, and what comes after the last, is shorter.
  static constexpr size_t kRoom = 512;

  // An interface that a route may do without prints as nothing.
  char* putIntf(char* at, Nynet::IntfId id) { return id.isNone() ? at : put(at, names_.of(id)); }
  char* putMiddle(char* at, const MfibPvSet& entry) {
    if (!entry.iifFrr.isNone() || !entry.notify.isNone() || !entry.fastdrop.isNone()) [[unlikely]] {
      at = putIntf(put(at, "\nIifFrr: "), entry.iifFrr);
      at = putIntf(put(at, "\nNotify: "), entry.notify);
      at = putIntf(put(at, "\nFastdrop: "), entry.fastdrop);
      *(at = put(at, "\nToCpu: ")) = flag(entry.toCpu);
      *(at = put(at + 1, "\nIifRegister: ")) = flag(entry.iifRegister);
      *(at = put(at + 1, "\nOifRegister: ")) = flag(entry.oifRegister);
      return put(at + 1, "\nOifs: ");
    }
    char* const end = put(at, kPlainMiddle);
    at[kFirstFlag] = flag(entry.toCpu);
    at[kSecondFlag] = flag(entry.iifRegister);
    at[kThirdFlag] = flag(entry.oifRegister);
    return end;
  }
  static char flag(bool value) { return static_cast<char>('0' + (value ? 1 : 0)); }

  // Returns: where to go on, with room for kRoom more.
  char* makeRoom(char* at) {
    if (buffer_.data() + buffer_.size() - at < static_cast<ptrdiff_t>(kRoom)) [[unlikely]] {
      // What was written may still be taken back by one.
      flush(at - 1);
      buffer_[0] = at[-1];
      return buffer_.data() + 1;
    }
    return at;
  }
  void flush(const char* end) {
    text_.append(buffer_.data(), static_cast<size_t>(end - buffer_.data()));
  }

  std::string& text_;
  const unsigned int af_;
  IntfNames names_;
  std::array<char, 16 * 1024> buffer_;
  char* end_ = buffer_.data();
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
    printer.finish();
  }
  mfib->lastDumpBytes_.store(text.size(), std::memory_order_relaxed);
  return text;
}

std::function<std::string()> vrfAfClosureGetMroutes(Mfib* mfib, unsigned int af) {
  return [mfib, af] { return getMroutes(mfib, af); };
}

}  // namespace SfeModules
