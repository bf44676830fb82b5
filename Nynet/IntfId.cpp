#include "Nynet/IntfId.h"

#include <array>
#include <charconv>
#include <ostream>
#include <stdexcept>

namespace Nynet {
namespace {

constexpr unsigned kKindShift = 56;
constexpr unsigned kPortShift = 20;
constexpr unsigned kLaneShift = 12;
constexpr uint64_t kPayloadMask = (uint64_t{1} << kKindShift) - 1;
constexpr uint64_t kLaneMask = 0xff;
constexpr uint64_t kVlanMask = 0xfff;

constexpr uint64_t kMaxPort = 65535;
constexpr uint64_t kMaxLane = 254;
constexpr uint64_t kMaxVlan = 4094;
constexpr uint64_t kMaxNumber = 4294967295;

constexpr std::string_view kNone = "None";
constexpr std::string_view kInvalid = "Invalid";
constexpr std::string_view kUnnamed = "Intf0x";
constexpr size_t kHexDigits = 16;
constexpr size_t kMaxShownBytes = 64;

struct NumberedKind {
  std::string_view word;
  IntfId::Kind kind;
};
// The kinds that are a word and one number.
constexpr std::array<NumberedKind, 4> kNumberedKinds = {{{"Vlan", IntfId::Kind::kVlan},
                                                         {"Loopback", IntfId::Kind::kLoopback},
                                                         {"Register", IntfId::Kind::kRegister},
                                                         {"Tunnel", IntfId::Kind::kTunnel}}};
constexpr std::string_view kEthernet = "Ethernet";

constexpr uint64_t compose(IntfId::Kind kind, uint64_t payload) {
  return static_cast<uint64_t>(kind) << kKindShift | payload;
}

// --- id to name

// A name being written; no name is longer.
class Name {
 public:
  void add(std::string_view text) {
    text.copy(end(), text.size());
    length_ += text.size();
  }
  void add(char c) { chars_[length_++] = c; }
  void add(uint64_t number) {
    length_ += static_cast<size_t>(std::to_chars(end(), chars_.end(), number).ptr - end());
  }
  void addHex(uint64_t number) {
    for (size_t digit = kHexDigits; digit-- > 0;) {
      add("0123456789abcdef"[number >> (4 * digit) & 0xf]);
    }
  }
  std::string_view view() const { return {chars_.data(), length_}; }

 private:
  char* end() { return chars_.data() + length_; }

  std::array<char, 48> chars_{};
  size_t length_ = 0;
};

// Each returns false, and writes nothing, for a payload that no name of the kind gives.
bool addEthernet(Name& name, uint64_t payload) {
  const uint64_t port = payload >> kPortShift;
  const uint64_t lane = payload >> kLaneShift & kLaneMask;
  const uint64_t vlan = payload & kVlanMask;
  if (port > kMaxPort || vlan > kMaxVlan) {
    return false;
  }
  name.add(kEthernet);
  name.add(port);
  if (lane != 0) {
    name.add('/');
    name.add(lane - 1);
  }
  if (vlan != 0) {
    name.add('.');
    name.add(vlan);
  }
  return true;
}

bool isNumberOf(IntfId::Kind kind, uint64_t number) {
  return kind == IntfId::Kind::kVlan ? number - 1 < kMaxVlan : number <= kMaxNumber;
}

bool addNamed(Name& name, uint64_t value) {
  const auto kind = static_cast<IntfId::Kind>(value >> kKindShift);
  const uint64_t payload = value & kPayloadMask;
  if (kind == IntfId::Kind::kEthernet) {
    return addEthernet(name, payload);
  }
  for (const NumberedKind& numbered : kNumberedKinds) {
    if (numbered.kind == kind) {
      if (!isNumberOf(kind, payload)) {
        return false;
      }
      name.add(numbered.word);
      name.add(payload);
      return true;
    }
  }
  return false;
}

Name nameOf(IntfId id) {
  Name name;
  if (id.isNone()) {
    name.add(kNone);
  } else if (id.isInvalid()) {
    name.add(kInvalid);
  } else if (!addNamed(name, id.value())) {
    name.add(kUnnamed);
    name.addHex(id.value());
  }
  return name;
}

// --- name to id

// Why a text is not a name; nullptr while it may be one.
using Fault = const char*;

constexpr Fault kNoKind = "it begins with no kind of interface";
constexpr Fault kNumberMissing = "a number is missing";
constexpr Fault kLeadingZero = "a number has a leading zero";
constexpr Fault kPortRange = "a port is 0..65535";
constexpr Fault kLaneRange = "a lane is 0..254";
constexpr Fault kVlanRange = "a VLAN is 1..4094";
constexpr Fault kNumberRange = "the number is 0..4294967295";
constexpr Fault kTrailing = "something follows the name";
constexpr Fault kHexForm = "16 lower-case hexadecimal digits must follow Intf0x";
constexpr Fault kHasName = "the interface with this id has a name of its own";

constexpr std::string_view kValidForms =
    "valid are Ethernet<port>, Ethernet<port>/<lane>, either of them with .<vlan>, Vlan<vlan>, "
    "Loopback<number>, Register<number>, Tunnel<number>, None, Invalid, "
    "Intf0x<16 hexadecimal digits>";

bool takeWord(std::string_view& rest, std::string_view word) {
  if (!rest.starts_with(word)) {
    return false;
  }
  rest.remove_prefix(word.size());
  return true;
}

// Takes a decimal number of low..high; `range` is the fault of one outside.
Fault takeNumber(std::string_view& rest,
                 uint64_t low,
                 uint64_t high,
                 Fault range,
                 uint64_t& number) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  if (rest.empty() || !isDigit(rest.front())) {
    return kNumberMissing;
  }
  if (rest.size() > 1 && rest[0] == '0' && isDigit(rest[1])) {
    return kLeadingZero;
  }
  number = 0;
  while (!rest.empty() && isDigit(rest.front())) {
    number = number * 10 + static_cast<uint64_t>(rest.front() - '0');
    if (number > high) {
      return range;
    }
    rest.remove_prefix(1);
  }
  return number < low ? range : nullptr;
}

Fault parseEthernet(std::string_view rest, uint64_t& value) {
  uint64_t port = 0;
  uint64_t lane = 0;
  uint64_t vlan = 0;
  Fault fault = takeNumber(rest, 0, kMaxPort, kPortRange, port);
  if (fault == nullptr && takeWord(rest, "/")) {
    fault = takeNumber(rest, 0, kMaxLane, kLaneRange, lane);
    ++lane;
  }
  if (fault == nullptr && takeWord(rest, ".")) {
    fault = takeNumber(rest, 1, kMaxVlan, kVlanRange, vlan);
  }
  if (fault != nullptr) {
    return fault;
  }
  value = compose(IntfId::Kind::kEthernet, port << kPortShift | lane << kLaneShift | vlan);
  return rest.empty() ? nullptr : kTrailing;
}

Fault parseNumbered(IntfId::Kind kind, std::string_view rest, uint64_t& value) {
  const bool isVlan = kind == IntfId::Kind::kVlan;
  uint64_t number = 0;
  const Fault fault = isVlan ? takeNumber(rest, 1, kMaxVlan, kVlanRange, number)
                             : takeNumber(rest, 0, kMaxNumber, kNumberRange, number);
  if (fault != nullptr) {
    return fault;
  }
  value = compose(kind, number);
  return rest.empty() ? nullptr : kTrailing;
}

Fault parseUnnamed(std::string_view digits, uint64_t& value) {
  if (digits.size() != kHexDigits ||
      digits.find_first_not_of("0123456789abcdef") != std::string_view::npos) {
    return kHexForm;
  }
  std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  return nameOf(IntfId(value)).view().starts_with(kUnnamed) ? nullptr : kHasName;
}

Fault parseName(std::string_view name, uint64_t& value) {
  if (name == kNone || name == kInvalid) {
    value = name == kNone ? IntfId().value() : IntfId::invalid().value();
    return nullptr;
  }
  std::string_view rest = name;
  if (takeWord(rest, kEthernet)) {
    return parseEthernet(rest, value);
  }
  if (takeWord(rest, kUnnamed)) {
    return parseUnnamed(rest, value);
  }
  for (const NumberedKind& numbered : kNumberedKinds) {
    if (takeWord(rest, numbered.word)) {
      return parseNumbered(numbered.kind, rest, value);
    }
  }
  return kNoKind;
}

// The text as it may stand in a log line.
std::string shown(std::string_view text) {
  std::string out(text.substr(0, kMaxShownBytes));
  for (char& c : out) {
    if (c < ' ' || c > '~') {
      c = '?';
    }
  }
  return text.size() > kMaxShownBytes ? out + "..." : out;
}

}  // namespace

IntfId IntfId::fromName(std::string_view name) {
  uint64_t value = 0;
  if (const Fault fault = parseName(name, value); fault != nullptr) {
    std::string text = "\"" + shown(name) + "\" is not the name of an interface: " + fault + "; ";
    text += kValidForms;
    throw std::invalid_argument(text);
  }
  return IntfId(value);
}

std::optional<IntfId> IntfId::parse(std::string_view name) noexcept {
  uint64_t value = 0;
  if (parseName(name, value) != nullptr) {
    return std::nullopt;
  }
  return IntfId(value);
}

std::string IntfId::stringValue() const {
  return std::string(nameOf(*this).view());
}

void IntfId::appendTo(std::string& out) const {
  out += nameOf(*this).view();
}

std::ostream& operator<<(std::ostream& out, IntfId id) {
  return out << nameOf(id).view();
}

}  // namespace Nynet
