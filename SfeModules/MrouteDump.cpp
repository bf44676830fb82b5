#include "SfeModules/MrouteDump.h"

#include <array>
#include <charconv>
#include <cstring>

#include "SfeModules/Assert.h"
#include "SfeModules/Mfib.h"
#include "SfeModules/RouteWalk.h"

namespace SfeModules {

namespace {

using Orp::TextWriter;

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

// Prints routes into one text: most of a route's text is put together in one piece and copied once.
class RoutePrinter {
 public:
  RoutePrinter(std::string& text, unsigned int af) : text_(text), af_(af) {}

  void print(const MfibKey& key, const MfibPvSet& entry) {
    put("Source: ");
    putAddr(key.source);
    put(" Group: ");
    putAddr(key.group);
    intfLine("\nIif: ", entry.iif);
    if (entry.iifFrr.isNone() && entry.notify.isNone() && entry.fastdrop.isNone()) {
      put("\nIifFrr: \nNotify: \nFastdrop: ");
    } else {
      intfLine("\nIifFrr: ", entry.iifFrr);
      intfLine("\nNotify: ", entry.notify);
      intfLine("\nFastdrop: ", entry.fastdrop);
    }
    put("\nToCpu: ");
    *at_++ = flag(entry.toCpu);
    put("\nIifRegister: ");
    *at_++ = flag(entry.iifRegister);
    put("\nOifRegister: ");
    *at_++ = flag(entry.oifRegister);
    put("\nOifs: ");
    for (uint32_t i = 0; i < entry.numOifs; ++i) {
      separate(i);
      put(names_.of(entry.oifs[i]));
    }
    put("\nOifGates: ");
    for (uint32_t i = 0; i < entry.numOifs; ++i) {
      separate(i);
      at_ = std::to_chars(at_, piece_.end(), entry.oifGates[i]).ptr;
    }
    *at_++ = '\n';
    finishPiece();
  }

 private:
  // What comes before the first outgoing interface, or after the last, is shorter.
  static constexpr size_t kRoomLeft = 512;

  template <size_t kSize>
  void put(const char (&literal)[kSize]) {
    std::memcpy(at_, literal, kSize - 1);
    at_ += kSize - 1;
  }
  template <size_t kRoom>
  void put(const ShortText<kRoom>& text) {
    std::memcpy(at_, text.chars.data(), kRoom);
    at_ += text.length;
  }
  void putAddr(const AddrBytes& addr) {
    if (af_ != kAfIpv4) {
      finishPiece();
      writeAddr(text_, addr.data(), af_);
      return;
    }
    for (unsigned i = 0; i < kIpv4AddrLen; ++i) {
      put(kOctets[addr[i]]);
      *at_++ = '.';
    }
    --at_;
  }
  // An interface that a route may do without prints as nothing.
  template <size_t kSize>
  void intfLine(const char (&label)[kSize], Nynet::IntfId id) {
    put(label);
    if (!id.isNone()) {
      put(names_.of(id));
    }
  }
  static char flag(bool value) { return value ? '1' : '0'; }
  void separate(uint32_t index) {
    if (piece_.end() - at_ < static_cast<ptrdiff_t>(kRoomLeft)) {
      finishPiece();
    }
    if (index > 0) {
      *at_++ = ' ';
    }
  }
  void finishPiece() {
    text_ << std::string_view(piece_.data(), static_cast<size_t>(at_ - piece_.data()));
    at_ = piece_.data();
  }

  TextWriter text_;
  const unsigned int af_;
  IntfNames names_;
  std::array<char, TextWriter::kMaxPart> piece_;
  char* at_ = piece_.data();
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
