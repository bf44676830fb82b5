#include "Bess/Packet.h"

#include "Bess/PacketCopier.h"

namespace bess {

Packet* Packet::copy(const Packet* src) {
  Packet* result = nullptr;
  const auto metadata = PacketCopier::Metadata::load(src->metadata<const char*>());
  PacketCopier().copy(src, metadata, 1, [&](Packet* copy) { result = copy; });
  return result;
}

}  // namespace bess
