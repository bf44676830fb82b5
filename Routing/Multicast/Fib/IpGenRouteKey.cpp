#include "Routing/Multicast/Fib/IpGenRouteKey.h"

#include <ostream>
#include <type_traits>

#include "Base/Orp/Hash.h"

namespace Routing::Multicast::Fib {

static_assert(sizeof(IpGenRouteKey) == 36 && std::is_trivially_copyable_v<IpGenRouteKey>,
              "is copied into shared tables as bytes");

std::string IpGenRouteKey::stringValue() const {
  return '(' + source_.stringValue() + ',' + group_.stringValue() + ')';
}

std::ostream& operator<<(std::ostream& out, const IpGenRouteKey& key) {
  return out << key.stringValue();
}

}  // namespace Routing::Multicast::Fib

size_t std::hash<Routing::Multicast::Fib::IpGenRouteKey>::operator()(
    const Routing::Multicast::Fib::IpGenRouteKey& key) const noexcept {
  Orp::Hash mixer;
  for (const Nynet::IpGenPrefix* prefix : {&key.source(), &key.group()}) {
    mixer.hashMix(prefix->address().bytes(), Nynet::IpGenAddr::kBytes);
    mixer.hashMix(static_cast<uint8_t>(prefix->af()));
    mixer.hashMix(prefix->length());
  }
  return mixer.result();
}
