#include "Bess/Packet.h"

#include "Bess/PacketStock.h"

namespace bess {

Packet* Packet::copy(const Packet* src) {
  Packet* result = nullptr;
  PacketStock(1).copy(src, src->metadata<const char*>(), &result, 1);
  return result;
}

}  // namespace bess
