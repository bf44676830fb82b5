#include "Sfe/Multicast/MrouteCounter.h"

#include <algorithm>
#include <cstring>

namespace Sfe::Multicast {
namespace {

using Nynet::AddressFamily;
using Nynet::IpGenAddr;
using Nynet::IpGenPrefix;

constexpr size_t kAddressWords = IpGenAddr::kBytes / sizeof(uint64_t);

uint64_t attributesOf(const IpGenPrefix& prefix) {
  return static_cast<uint64_t>(prefix.af()) | (uint64_t{prefix.length()} << 8);
}

// Refuses a family that is none, and bytes behind the family's address length.
bool prefixFrom(std::span<const uint64_t, kAddressWords> words,
                uint64_t attributes,
                IpGenPrefix* out) {
  const uint64_t family = attributes & 0xff;
  if (family > static_cast<uint64_t>(AddressFamily::kIpv6)) {
    return false;
  }
  uint8_t bytes[IpGenAddr::kBytes];
  std::memcpy(bytes, words.data(), sizeof bytes);
  const IpGenAddr address(static_cast<AddressFamily>(family), bytes);
  *out = IpGenPrefix(address, static_cast<uint8_t>(attributes >> 8));
  return std::memcmp(address.bytes(), bytes, sizeof bytes) == 0;
}

}  // namespace

void MrouteCounter::toWords(std::span<uint64_t, kShape.recordWords()> words) const {
  std::memcpy(&words[0], key_.source().address().bytes(), IpGenAddr::kBytes);
  std::memcpy(&words[kAddressWords], key_.group().address().bytes(), IpGenAddr::kBytes);
  words[2 * kAddressWords] = attributesOf(key_.source()) | (attributesOf(key_.group()) << 16);
  std::copy(counters_.begin(), counters_.end(), words.begin() + kShape.keyWords);
}

bool MrouteCounter::fromWords(std::span<const uint64_t, kShape.recordWords()> words,
                              MrouteCounter* out) {
  const uint64_t attributes = words[2 * kAddressWords];
  IpGenPrefix source;
  IpGenPrefix group;
  if ((attributes >> 32) != 0 ||
      !prefixFrom(words.subspan<0, kAddressWords>(), attributes, &source) ||
      !prefixFrom(words.subspan<kAddressWords, kAddressWords>(), attributes >> 16, &group)) {
    return false;
  }
  out->key_ = Key(source, group);
  std::copy(words.begin() + kShape.keyWords, words.end(), out->counters_.begin());
  return true;
}

}  // namespace Sfe::Multicast
