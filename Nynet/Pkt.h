// Nynet::Pkt: a packet on its way to the control plane, its bytes in a counted buffer.
//
// Threads    : one thread fills it; afterwards any number may read it. References are counted as
//              Orp::Ptr says.
// Ownership  : the packet holds one reference on its head data, and drops it when it gets new head
//              data or dies.
// Errors     : misuse is fatal: head data asked of a packet that has none fails the check
//              "firstIoVec_ != maxIovecs_"; no memory throws std::bad_alloc.
// Cost       : newPkt() and newSharedHeadData() take one piece of slab memory each (the heap above
//              4096 bytes).
// Invariants :
//   (1) fresh head data reads as zeroes.
//   (2) 0 <= firstIoVec_ <= maxIovecs_; the pieces of the packet are ioVecs_[firstIoVec_ ..
//       maxIovecs_ - 1].
#pragma once

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "Base/NySlab/NySlab.h"
#include "Base/Orp/Ptr.h"

namespace Nynet {

class Pkt : public Orp::PtrInterface, public NySlab::SlabObject {
 public:
  class Manager;

  // Gives the packet `size` zero bytes of head data in place of what it had.
  // Returns: the bytes; writable until the packet is handed to another thread. `size` 0 gives a
  //          valid pointer to none.
  uint8_t* newSharedHeadData(unsigned size);

  bool hasHeadData() const noexcept { return firstIoVec_ != maxIovecs_; }
  // Requires: hasHeadData().
  const uint8_t* headData() const;
  // Returns: 0 for a packet without head data.
  unsigned headDataLength() const noexcept;

 protected:
  Pkt();
  ~Pkt() override;

 private:
  class SharedHeadData;

  // NOLINTNEXTLINE(readability-identifier-naming): part of a check's text
  static constexpr size_t maxIovecs_ = 1;

  Orp::Ptr<SharedHeadData> head_;
  std::array<iovec, maxIovecs_> ioVecs_{};
  size_t firstIoVec_ = maxIovecs_;
};

// Makes packets.
class Pkt::Manager {
 public:
  // Returns: a packet without head data, held by the caller alone.
  Orp::Ptr<Pkt> newPkt();
};

// The process's only manager; never destroyed. Any thread.
Pkt::Manager* globalPktManager();

}  // namespace Nynet
