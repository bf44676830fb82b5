#include "Nynet/Prefix.h"

#include <ostream>
#include <type_traits>

#include "Base/Orp/Hash.h"

namespace Nynet {

static_assert(sizeof(IpGenPrefix) == 18 && std::is_trivially_copyable_v<IpGenPrefix>,
              "is copied into shared tables as bytes");

std::string IpGenPrefix::stringValue() const {
  return address_.stringValue() + '/' + std::to_string(length_);
}

std::ostream& operator<<(std::ostream& out, const IpGenPrefix& prefix) {
  return out << prefix.stringValue();
}

}  // namespace Nynet

size_t std::hash<Nynet::IpGenPrefix>::operator()(const Nynet::IpGenPrefix& prefix) const noexcept {
  Orp::Hash mixer;
  mixer.hashMix(prefix.address().bytes(), Nynet::IpGenAddr::kBytes);
  mixer.hashMix(static_cast<uint8_t>(prefix.af()));
  mixer.hashMix(prefix.length());
  return mixer.result();
}
