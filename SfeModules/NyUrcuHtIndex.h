// NyRcuHtIndex<Node>: where in memory the nodes of an NyRcuHt lie, by the hash of their keys.
//
// A shortcut beside the table's chains, never instead of them: a look-up that finds its key here
// touches one line of the index and one of the node, and both can be fetched ahead. What is not
// here is looked for in the chains.
//
// Threads    | operation        | writers of the table | readers |
//            | find, prefetch.. |         yes          |   yes   |
//            | add, remove, grow|         yes          |    -    |
//              Any two may run at once; grow() from one thread at a time.
// RCU        : a reader uses what it finds in the read side in which it found it. A node is removed
//              from here after it was unlinked and before call_rcu gets it.
// Layout     : sets of one cache line with eight words; a word is 16 bits of the hash above the 48
//              bits of a node's address, 0 when free. The number of sets in use doubles with the
//              entries; the address range for the largest number is taken at once, its memory with
//              its first use.
// Invariants :
//   (1) a node is in at most one word, and node->place says in which; both change only while the
//       node's owner has it locked (NyRcuHtNode::lock).
//   (2) a word that is not free is changed by its node's owner alone.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <new>

template <class Node>
class NyRcuHtIndex {
 public:
  using Place = std::atomic<uint64_t>;

  // `maxEntries` of 0 makes an index that never holds anything.
  // Errors: std::bad_alloc.
  explicit NyRcuHtIndex(uint32_t maxEntries) {
    if (maxEntries == 0) {
      return;
    }
    maxSets_ = std::bit_ceil(std::max<size_t>(maxEntries / kEntriesPerSet, kFirstSets));
    void* memory = mmap(nullptr, maxSets_ * sizeof(Set), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
      throw std::bad_alloc();  // data path: in the constructor
    }
    sets_ = static_cast<Set*>(memory);
    mask_.store(kFirstSets - 1, std::memory_order_relaxed);
  }
  ~NyRcuHtIndex() {
    if (sets_ != nullptr) {
      munmap(sets_, maxSets_ * sizeof(Set));
    }
  }
  NyRcuHtIndex(const NyRcuHtIndex&) = delete;
  NyRcuHtIndex& operator=(const NyRcuHtIndex&) = delete;

  bool enabled() const { return sets_ != nullptr; }

  // Returns: the node with that key, null when it is not here.
  template <class K>
  Node* find(const K& key, uint32_t hash) const {
    if (!enabled()) {
      return nullptr;
    }
    if (Node* node = probable(hash); node != nullptr && Node::sameKey(node->key, key)) {
      return node;
    }
    return findAmongAll(setOf(hash), key, hash);
  }

  // The two steps of a look-up that wait for memory, ahead of it: the set is fetched, then asked
  // for the node with the hash, which nearly always is the right one. Returns: null for none.
  [[gnu::always_inline]] void prefetchSet(uint32_t hash) const {
    if (enabled()) {
      __builtin_prefetch(&setOf(hash));
    }
  }
  // Without branches: nobody can guess in which word it is.
  Node* probable(uint32_t hash) const {
    if (!enabled()) {
      return nullptr;
    }
    const Set& set = setOf(hash);
    const uint64_t tag = uint64_t{tagOf(hash)} << kAddressBits;
    uint64_t found = 0;
#pragma GCC unroll 8
    for (const Place& place : set.places) {
      const uint64_t address = place.load(std::memory_order_acquire) ^ tag;
      found = address < kAddressEnd ? address : found;
    }
    return reinterpret_cast<Node*>(found);
  }

  // Returns: some node whose hash ends in the same bits as `hash`, as many as there are sets; null
  // when none is known.
  Node* similar(uint32_t hash) const {
    if (!enabled()) {
      return nullptr;
    }
    for (const Place& place : setOf(hash).places) {
      if (Node* node = nodeOf(place.load(std::memory_order_acquire)); node != nullptr) {
        return node;
      }
    }
    return nullptr;
  }

  // The node's place: null when its set is full. Requires: the caller has locked the node.
  void add(Node* node, uint32_t hash) {
    node->place = nullptr;
    if (!enabled()) {
      return;
    }
    const uint64_t word =
        (uint64_t{tagOf(hash)} << kAddressBits) | reinterpret_cast<uintptr_t>(node);
    for (Place& place : setOf(hash).places) {
      uint64_t free = 0;
      if (place.load(std::memory_order_relaxed) == 0 &&
          place.compare_exchange_strong(free, word, std::memory_order_release,
                                        std::memory_order_relaxed)) {
        node->place = &place;
        return;
      }
    }
  }

  // Requires: the caller has locked or unlinked the node.
  void remove(Node* node) {
    if (node->place != nullptr) {
      node->place->store(0, std::memory_order_release);
      node->place = nullptr;
    }
  }

  // True when there are too many entries for the sets in use.
  bool crowded(size_t entries) const {
    const size_t sets = mask_.load(std::memory_order_relaxed) + 1;
    return enabled() && entries > sets * kEntriesPerSet && sets < maxSets_;
  }

  // Doubles the sets in use, where `entries` are still too many for them, and calls `move(node)`
  // for each node that may have to move. One thread at a time.
  template <class Move>
  void grow(size_t entries, Move move) {
    if (!crowded(entries)) {
      return;  // another thread has grown it since
    }
    const size_t before = mask_.load(std::memory_order_relaxed) + 1;
    if (before * sizeof(Set) >= kLargePage) {
      // Fewer misses of address translation, where the kernel has large pages to give.
      madvise(sets_ + before, before * sizeof(Set), MADV_HUGEPAGE);
    }
    mask_.store(2 * before - 1, std::memory_order_release);
    for (size_t i = 0; i < before; ++i) {
      for (const Place& place : sets_[i].places) {
        if (const uint64_t word = place.load(std::memory_order_acquire); word != 0) {
          move(nodeOf(word));
        }
      }
    }
  }

 private:
  static constexpr size_t kWays = 8;
  static constexpr size_t kEntriesPerSet = kWays / 2;  // one entry in 150 finds its set full
  static constexpr size_t kFirstSets = 16;
  static constexpr unsigned kAddressBits = 48;
  static constexpr uint64_t kAddressEnd = uint64_t{1} << kAddressBits;
  static constexpr size_t kLargePage = size_t{2} << 20;
  static_assert(sizeof(void*) == sizeof(uint64_t));

  struct alignas(64) Set {
    Place places[kWays];
  };

  // Two keys of one set may have the same tag.
  template <class K>
  static Node* findAmongAll(const Set& set, const K& key, uint32_t hash) {
    for (const Place& place : set.places) {
      const uint64_t word = place.load(std::memory_order_acquire);
      Node* node = nodeOf(word);
      if (tagOf(word) == tagOf(hash) && node != nullptr && Node::sameKey(node->key, key)) {
        return node;
      }
    }
    return nullptr;
  }

  static uint16_t tagOf(uint32_t hash) {
    return static_cast<uint16_t>(hash >> 16);
  }
  static uint16_t tagOf(uint64_t word) {
    return static_cast<uint16_t>(word >> kAddressBits);
  }
  static Node* nodeOf(uint64_t word) {
    return reinterpret_cast<Node*>(word & (kAddressEnd - 1));
  }
  Set& setOf(uint32_t hash) const {
    return sets_[hash & mask_.load(std::memory_order_acquire)];
  }

  Set* sets_ = nullptr;
  size_t maxSets_ = 0;
  std::atomic<size_t> mask_{0};
};
