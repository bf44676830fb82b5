#include "SfeModules/MfibTypes.h"

#include <rte_common.h>

#include <new>

#include "Base/NySlab/NySlab.h"

namespace SfeModules {

namespace {

// Allocates objects with so many bytes behind them, in whole cache lines.
template <class T>
struct RoomBehind {
  using value_type = T;  // the standard's name

  explicit RoomBehind(size_t room) : bytes(room) {}
  template <class U>
  RoomBehind(const RoomBehind<U>& other)
      : bytes(other.bytes) {}  // NOLINT(google-explicit-constructor)

  T* allocate(size_t n) { return static_cast<T*>(NySlab::slabAlloc(lines(n * sizeof(T) + bytes))); }
  void deallocate(T* memory, size_t n) { NySlab::slabFree(memory, lines(n * sizeof(T) + bytes)); }
  static size_t lines(size_t size) { return RTE_ALIGN_CEIL(size, RTE_CACHE_LINE_SIZE); }
  friend bool operator==(const RoomBehind&, const RoomBehind&) = default;

  size_t bytes;
};

}  // namespace

std::shared_ptr<MfibPvSet> MfibPvSet::make(uint32_t oifCount) {
  const size_t ways = wayBytes(oifCount);
  const size_t oifBytes = oifCount * sizeof(Nynet::IntfId);
  const RoomBehind<MfibPvSet> room(ways + oifBytes + oifCount * sizeof(uint32_t));
  auto entry = std::allocate_shared<MfibPvSet>(room);
  entry->numOifs = oifCount;
  if (oifCount > 0) {
    // The entry is the last part of what was allocated.
    new (entry->oifWays()) uint8_t[ways]();
    new (entry->oifs()) Nynet::IntfId[oifCount];
    new (entry->oifGates()) uint32_t[oifCount]();
  }
  return entry;
}

Nynet::IpAddr nynetIpAddr(const unsigned char* bytes) {
  uint32_t value = 0;
  std::memcpy(&value, bytes, sizeof(value));
  return Nynet::IpAddr(value);
}

Nynet::Ip6Addr nynetIp6Addr(const unsigned char* bytes) {
  Nynet::Ip6Addr addr;
  addr.copyFromBuffer(bytes);
  return addr;
}

Nynet::IpGenPrefix nynetIpGenPrefix(unsigned int af, const unsigned char* bytes) {
  if (af == kAfIpv4) {
    return {Nynet::IpGenAddr(nynetIpAddr(bytes)), 32};
  }
  return {Nynet::IpGenAddr(nynetIp6Addr(bytes)), 128};
}

Routing::Multicast::Fib::IpGenRouteKey ipGenRouteKey(Nynet::IpGenPrefix first,
                                                     Nynet::IpGenPrefix second) {
  return {first, second};
}

Routing::Multicast::Fib::IpGenRouteKey ipGenRouteKey(unsigned int af, const MfibKey& key) {
  return ipGenRouteKey(nynetIpGenPrefix(af, key.source.data()),
                       nynetIpGenPrefix(af, key.group.data()));
}

MacAddr multicastMac(unsigned int af, const AddrBytes& group) {
  if (af == kAfIpv4) {
    return {0x01, 0x00, 0x5e, static_cast<uint8_t>(group[1] & 0x7f), group[2], group[3]};
  }
  return {0x33, 0x33, group[12], group[13], group[14], group[15]};
}

void writeAddr(Orp::TextWriter& text, const unsigned char* addr, unsigned int af) {
  constexpr char kHex[] = "0123456789abcdef";
  constexpr unsigned kIpv6 = 2;
  const unsigned length = af == kAfIpv4 ? kIpv4AddrLen : kIpv6AddrLen;
  for (unsigned i = 0; i < length; ++i) {
    if (af == kIpv6) {
      text << kHex[addr[i] >> 4] << kHex[addr[i] & 0xf];
      if (i % 2 == 1 && i + 1 < length) {
        text << ':';
      }
      continue;
    }
    text << uint32_t{addr[i]};
    if (af == kAfIpv4 && i + 1 < length) {
      text << '.';
    }
  }
}

std::string addrArrayToStr(const unsigned char* addr, unsigned int af) {
  std::string text;
  Orp::TextWriter writer(text);
  writeAddr(writer, addr, af);
  writer.flush();
  return text;
}

}  // namespace SfeModules
