#include "Routing/Multicast/Notify/Messages.h"

#include <utility>

#include "Routing/Multicast/Notify/CacheReport.h"

namespace Routing::Multicast::Notify {

uint8_t NoCacheMessage::kind() const noexcept {
  return kKindNoCache;
}
NoCacheMessage::~NoCacheMessage() = default;

uint8_t WrongVifMessage::kind() const noexcept {
  return kKindWrongVif;
}
WrongVifMessage::~WrongVifMessage() = default;

uint8_t WholePktMessage::kind() const noexcept {
  return kKindWholePkt;
}
WholePktMessage::~WholePktMessage() = default;

void WholePktMessage::pktIs(Orp::Ptr<Nynet::Pkt> pkt) noexcept {
  Orp::Ptr<Nynet::Pkt>& mine = slots_[Orp::threadSlot()].pkt;
  if (mine.get() != pkt.get()) {
    mine = std::move(pkt);
  }
}

Orp::Ptr<Nynet::Pkt> WholePktMessage::pkt() const noexcept {
  return slots_[Orp::threadSlot()].pkt;
}

const Nynet::Pkt* WholePktMessage::attachedPkt() const noexcept {
  return slots_[Orp::threadSlot()].pkt.get();
}

}  // namespace Routing::Multicast::Notify
