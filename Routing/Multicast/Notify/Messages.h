// The three notifications of the packet path to the multicast control plane.
//
//   NoCacheMessage   no route for the packet's source and group
//   WrongVifMessage  the packet came in on an interface that its route does not expect
//   WholePktMessage  the control plane wants this whole packet (a register); carries it
//
// Threads    : any; fields are per thread, see Nynet/MrtMessage.h.
// Ownership  : a WholePktMessage holds one reference on the packet of each thread slot. It drops it
//              when the slot gets another packet, and all of them when the message dies.
#pragma once

#include <array>
#include <cstdint>

#include "Base/Orp/Ptr.h"
#include "Base/Orp/ThreadSlot.h"
#include "Nynet/MrtMessage.h"
#include "Nynet/Pkt.h"

namespace Routing::Multicast::Notify {

class NoCacheMessage : public Nynet::MrtMessage {
 public:
  NoCacheMessage() = default;
  uint8_t kind() const noexcept override;

 protected:
  ~NoCacheMessage() override;
};

class WrongVifMessage : public Nynet::MrtMessage {
 public:
  WrongVifMessage() = default;
  uint8_t kind() const noexcept override;

 protected:
  ~WrongVifMessage() override;
};

class WholePktMessage : public Nynet::MrtMessage {
 public:
  WholePktMessage() = default;
  uint8_t kind() const noexcept override;

  // Nothing happens when the calling thread's slot already holds `pkt`. Null takes the packet away.
  void pktIs(Orp::Ptr<Nynet::Pkt> pkt) noexcept;
  // Returns: the packet of the calling thread's slot, or null.
  Orp::Ptr<Nynet::Pkt> pkt() const noexcept;
  const Nynet::Pkt* attachedPkt() const noexcept override;

 protected:
  ~WholePktMessage() override;

 private:
  struct Slot {
    Orp::Ptr<Nynet::Pkt> pkt;
    std::array<uint8_t, 64 - sizeof(Orp::Ptr<Nynet::Pkt>)> apart{};  // one worker, one cache line
  };

  std::array<Slot, Orp::kMaxThreadSlots> slots_{};
};

}  // namespace Routing::Multicast::Notify
