// The inside of CounterStore, for its own sources only.
#pragma once

#include <sched.h>
#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <span>

#include "Sfe/Multicast/CounterStore.h"
#include "Sfe/Multicast/SlotMemory.h"

namespace Sfe::Multicast {

inline constexpr uint64_t kClaimed = 1;  // in an owner word, beside the tag
inline constexpr uint32_t kBits = 64;

inline size_t damagedWords(uint32_t capacity) {
  return (capacity + kBits - 1) / kBits;
}

inline bool sameWords(std::span<const uint64_t> a, std::span<const uint64_t> b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// Room for the words of one record of any kind.
class RecordBuffer {
 public:
  explicit RecordBuffer(const RecordShape& shape) : words_(shape.recordWords()) {}
  std::span<uint64_t> words() { return std::span(storage_).first(words_); }

 private:
  uint32_t words_;
  std::array<uint64_t, kMaxRecordWords> storage_;
};

// Waits for another thread's claim: a few turns at once, then yielding the core.
class Spinner {
 public:
  void wait() {
    if (++turns_ > kSpins) {
      sched_yield();
    }
  }

 private:
  static constexpr unsigned kSpins = 64;
  unsigned turns_ = 0;
};

// What the index holds of a record, and behind it the words of its key. Constant once it is in the
// index.
struct CounterStore::Node {
  cds_lfht_node hashNode;
  rcu_head reclaim;
  uint64_t tag;  // even, never 0, never used twice
  uint32_t slot;
  uint32_t keyWords;

  static std::unique_ptr<Node> make(std::span<const uint64_t> key) {
    std::unique_ptr<Node> node(new (KeyRoom{key.size_bytes()}) Node());
    node->keyWords = static_cast<uint32_t>(key.size());
    std::copy(key.begin(), key.end(), reinterpret_cast<uint64_t*>(node.get() + 1));
    return node;
  }
  std::span<const uint64_t> key() const {
    return {reinterpret_cast<const uint64_t*>(this + 1), keyWords};
  }

  struct KeyRoom {
    size_t bytes;
  };
  static void* operator new(size_t bytes, KeyRoom key) { return ::operator new(bytes + key.bytes); }
  static void operator delete(void* node) { ::operator delete(node); }
  static void operator delete(void* node, KeyRoom /*key*/) { ::operator delete(node); }

  static Node* of(cds_lfht_node* hashNode) {
    return reinterpret_cast<Node*>(reinterpret_cast<std::byte*>(hashNode) -
                                   offsetof(Node, hashNode));
  }
};

}  // namespace Sfe::Multicast
