#include "Nynet/Address.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <type_traits>

#include "Base/Orp/Hash.h"

namespace Nynet {

static_assert(sizeof(IpGenAddr) == 17 && std::is_trivially_copyable_v<IpGenAddr>,
              "is copied into packets' messages and shared tables as bytes");

void Ip6Addr::copyFromBuffer(const uint8_t* bytes) noexcept {
  std::copy_n(bytes, kBytes, bytes_.begin());
}

IpGenAddr::IpGenAddr(IpAddr addr) noexcept : af_(AddressFamily::kIpv4) {
  const uint32_t value = addr.value();
  std::memcpy(bytes_.data(), &value, sizeof(value));
}

IpGenAddr::IpGenAddr(const Ip6Addr& addr) noexcept
    : bytes_(addr.bytes()), af_(AddressFamily::kIpv6) {}

IpGenAddr::IpGenAddr(AddressFamily af, const uint8_t* bytes) noexcept : af_(af) {
  std::copy_n(bytes, addressLength(af), bytes_.begin());
}

std::string IpGenAddr::stringValue() const {
  if (af_ == AddressFamily::kUnspec) {
    return {};
  }
  std::array<char, INET6_ADDRSTRLEN> text{};
  const int family = af_ == AddressFamily::kIpv4 ? AF_INET : AF_INET6;
  inet_ntop(family, bytes_.data(), text.data(), text.size());
  return text.data();
}

std::ostream& operator<<(std::ostream& out, const IpGenAddr& addr) {
  return out << addr.stringValue();
}

}  // namespace Nynet

size_t std::hash<Nynet::IpGenAddr>::operator()(const Nynet::IpGenAddr& addr) const noexcept {
  Orp::Hash mixer;
  mixer.hashMix(addr.bytes(), Nynet::IpGenAddr::kBytes);
  mixer.hashMix(static_cast<uint8_t>(addr.af()));
  return mixer.result();
}
