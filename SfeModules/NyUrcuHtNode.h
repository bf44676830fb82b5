// NyRcuHtNode<K, V>: one entry of an NyRcuHt, what a look-up reads of it first.
//
// Threads    : key and value are constant while the node is linked; `ownership` says who may change
//              its place in the index.
// Ownership  : the table's until it is unlinked, then its remover's, who has it freed after a grace
//              period.
#pragma once

#include <rte_pause.h>
#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <thread>
#include <utility>

// What liburcu links and calls back with; base classes, so that both addresses lead to the node.
struct NyRcuHtLink {
  cds_lfht_node htNode{};
};
struct NyRcuHtReclaim {
  rcu_head rcuHead{};
};

// All that a look-up reads: one cache line where key and value let it.
template <class K, class V>
struct NyRcuHtEntry : NyRcuHtLink {
  NyRcuHtEntry(const K& k, V&& v) : key(k), value(std::move(v)) {}

  K key;
  V value;
};

template <class K, class V>
struct NyRcuHtNode : NyRcuHtEntry<K, V>, NyRcuHtReclaim {
  using KeyRelease = void (*)(K&);
  using ValueRelease = void (*)(V&);
  enum Ownership : uint8_t { kUnlinked, kLinked, kLocked };

  NyRcuHtNode(const K& k, V&& v, KeyRelease onKey, ValueRelease onValue)
      : NyRcuHtEntry<K, V>(k, std::move(v)), releaseKey(onKey), releaseValue(onValue) {}

  static NyRcuHtNode* of(cds_lfht_node* htNode) {
    return static_cast<NyRcuHtNode*>(reinterpret_cast<NyRcuHtLink*>(htNode));
  }
  static NyRcuHtNode* of(rcu_head* head) {
    return static_cast<NyRcuHtNode*>(reinterpret_cast<NyRcuHtReclaim*>(head));
  }

  // Byte for byte. A key is a whole number of words, and short: no call, no branch per word.
  static bool sameKey(const K& a, const K& b) {
    const auto* left = reinterpret_cast<const unsigned char*>(&a);
    const auto* right = reinterpret_cast<const unsigned char*>(&b);
    uint64_t difference = 0;
#pragma GCC unroll 4
    for (size_t at = 0; at < sizeof(K); at += sizeof(uint64_t)) {
      uint64_t one;
      uint64_t other;
      std::memcpy(&one, left + at, sizeof(one));
      std::memcpy(&other, right + at, sizeof(other));
      difference |= one ^ other;
    }
    return difference == 0;
  }

  // Born locked: its inserter unlocks it when it is in the table and in the index. Locked again
  // for the moment in which its place in the index changes. Returns: false when the node is
  // unlinked already. Waits for another thread's moment.
  bool lock() {
    Ownership expected = kLinked;
    for (unsigned tries = 1;
         !ownership.compare_exchange_weak(expected, kLocked, std::memory_order_acq_rel); ++tries) {
      if (expected == kUnlinked) {
        return false;
      }
      expected = kLinked;
      waitForOwner(tries);
    }
    return true;
  }
  void awaitUnlocked() const {
    for (unsigned tries = 1; ownership.load(std::memory_order_acquire) == kLocked; ++tries) {
      waitForOwner(tries);
    }
  }
  void unlock() {
    ownership.store(kLinked, std::memory_order_release);
  }

  // An owner that takes this long has lost its processor, perhaps to this thread.
  static void waitForOwner(unsigned tries) {
    constexpr unsigned kMoment = 64;
    if (tries % kMoment == 0) {
      std::this_thread::yield();
    } else {
      rte_pause();
    }
  }

  KeyRelease releaseKey;      // called with the key when the node is freed; may be null
  ValueRelease releaseValue;  // called with the value likewise; may be null
  std::atomic<uint64_t>* place = nullptr;  // in the index; null when it is not there
  std::atomic<Ownership> ownership{kLocked};
};
