// Up to 32 packets that travel together.
//
// Threads    : no protection of its own; a batch belongs to the task run it was allocated in.
// Ownership  : holds packets, never frees them. Whoever holds the batch owns what it lists.
// Invariants :
//   (1) cnt() <= kMaxBurst at every moment another module can look.
//   (2) trivial: memory that was never written is no batch until clear().
#pragma once

#include <glog/logging.h>

#include <algorithm>
#include <cstddef>
#include <type_traits>

namespace bess {

class Packet;

class PacketBatch {
 public:
  static constexpr size_t kMaxBurst = 32;

  int cnt() const { return cnt_; }
  void setCnt(int cnt) { cnt_ = cnt; }
  void incrCnt(int by = 1) { cnt_ += by; }

  bool full() const { return static_cast<size_t>(cnt_) >= kMaxBurst; }
  bool empty() const { return cnt_ == 0; }
  void clear() { cnt_ = 0; }

  // Requires: !full(). A caller that checks after it added finds a 33rd packet in its own check and
  // not in foreign memory, there is room for that one; a 34th is fatal here.
  void add(Packet* pkt) {
    CHECK(static_cast<size_t>(cnt_) <= kMaxBurst) << "batch overrun";
    pkts_[cnt_++] = pkt;
  }

  // Takes over all packets of `other`, behind its own; `other` is empty afterwards.
  // Requires: both counts together are at most kMaxBurst.
  void absorb(PacketBatch* other) {
    std::copy_n(other->pkts_, other->cnt_, pkts_ + cnt_);
    cnt_ += other->cnt_;
    other->clear();
  }

  Packet** pkts() { return pkts_; }
  Packet* const* pkts() const { return pkts_; }

  Packet** begin() { return pkts_; }
  Packet** end() { return pkts_ + cnt_; }
  Packet* const* begin() const { return pkts_; }
  Packet* const* end() const { return pkts_ + cnt_; }

 private:
  int cnt_;
  Packet* pkts_[kMaxBurst + 1];
};

static_assert(std::is_trivially_default_constructible_v<PacketBatch>);
static_assert(std::is_trivially_copyable_v<PacketBatch>);

}  // namespace bess
