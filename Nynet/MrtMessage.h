// Nynet::MrtMessage: a multicast routing notification that many threads refill and send through one
// shared object.
//
// The fields exist once per thread slot: a thread reads back what it wrote itself, and nothing that
// another thread writes at the same time. A thread that wrote nothing reads an empty address, or
// what an ended thread left in the slot that it inherited; so every field is written before each
// send.
// Threads    : any; no lock, no allocation.
// Ownership  : counted (Orp::Ptr); made and freed by the control plane's side of a module, used by
//              workers meanwhile.
// Cost       : a setter copies 17 bytes. The object itself takes kMaxThreadSlots cache lines.
#pragma once

#include <array>
#include <cstdint>

#include "Base/NySlab/NySlab.h"
#include "Base/Orp/Ptr.h"
#include "Base/Orp/ThreadSlot.h"
#include "Nynet/Address.h"

namespace Nynet {

class Pkt;

class MrtMessage : public Orp::PtrInterface, public NySlab::SlabObject {
 public:
  // The type of the message as linux/mroute.h numbers them (IGMPMSG_...).
  virtual uint8_t kind() const noexcept = 0;

  void sourceIs(const IpGenAddr& source) noexcept { mine().source = source; }
  void groupIs(const IpGenAddr& group) noexcept { mine().group = group; }
  const IpGenAddr& source() const noexcept { return mine().source; }
  const IpGenAddr& group() const noexcept { return mine().group; }

  // Returns: the packet that the calling thread attached; null when it has none, or for a kind that
  //          carries none.
  virtual const Pkt* attachedPkt() const noexcept { return nullptr; }

 protected:
  MrtMessage() = default;
  ~MrtMessage() override;

 private:
  struct Fields {
    IpGenAddr source;
    IpGenAddr group;
    // Keeps the slots of two workers off one cache line.
    std::array<uint8_t, 64 - 2 * sizeof(IpGenAddr)> apart{};
  };

  Fields& mine() noexcept { return fields_[Orp::threadSlot()]; }
  const Fields& mine() const noexcept { return fields_[Orp::threadSlot()]; }

  std::array<Fields, Orp::kMaxThreadSlots> fields_{};
};

}  // namespace Nynet
