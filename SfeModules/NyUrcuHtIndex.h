// NyRcuHtIndex<Node>: where in memory the nodes of an NyRcuHt lie, by the hash of their keys.
//
// A shortcut beside the table's chains: a look-up that finds its key here touches one line of the
// index and one of the node, and both can be fetched ahead. What is not here is looked for in the
// chains, unless it is known that the index has every node of that hash.
//
// Threads    | operation                | writers of the table | readers |
//            | find, prefetch..         |         yes          |   yes   |
//            | add, replace, remove     |         yes          |    -    |
//            | rearrange                | one of them at a time|    -    |
//              Any two may run at once.
// RCU        : a reader uses what it finds in the read side in which it found it. A node is removed
//              from here after it was unlinked and before call_rcu gets it.
// Layout     : sets of one cache line with eight words; a word is the upper 16 bits of the hash
//              (the last one set) above the 48 bits of a node's address, 0 when free. A node whose
//              own set is full goes to the set beside it, and is left out when that is full too; a
//              byte for each set tells of both. The number of sets in use doubles with the entries;
//              the address range for the largest number is taken at once, its memory with its first
//              use.
// Invariants :
//   (1) a node is in at most one word, and node->place says in which; both change only while the
//       node's owner has it locked (NyRcuHtNode::lock) or has unlinked it.
//   (2) a word that is not free is changed by its node's owner alone.
//   (3) while the index is not rearranged, a node that add() has returned for is in its own set, or
//       in the one beside it and its own set's byte says so, or that byte says that one was left
//       out. The bytes only forget when the index is rearranged.
#pragma once

#include <sys/mman.h>
#include <urcu/arch.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <new>
#include <utility>

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
    void* memory = mmap(nullptr, mappedBytes(), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
      throw std::bad_alloc();  // data path: in the constructor
    }
    sets_ = static_cast<Set*>(memory);
    overflows_ = reinterpret_cast<std::atomic<uint8_t>*>(sets_ + maxSets_);
    mask_.store(kFirstSets - 1, std::memory_order_relaxed);
  }
  ~NyRcuHtIndex() {
    if (sets_ != nullptr) {
      munmap(sets_, mappedBytes());
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
    const size_t own = setOf(hash);
    if (Node* node = probable(hash); node != nullptr) {
      if (Node::sameKey(node->key, key)) [[likely]] {
        return node;
      }
      if (node = findAmongAll(sets_[own], key, hash); node != nullptr) {
        return node;
      }
    }
    return overflow(own) == kNone ? nullptr : findAmongAll(sets_[beside(own)], key, hash);
  }

  // Counts the times that the index began or ended to be rearranged.
  uint64_t arrangement() const { return arrangement_.load(std::memory_order_acquire); }

  // True when find() found no key of that hash because none is here or left out: all whose add()
  // has returned. `arrangement`: as it was before find().
  bool provesAbsence(uint32_t hash, uint64_t arrangement) const {
    return enabled() && isSettled(hash, arrangement, kLeftOut);
  }
  // The same where probable() found nothing, which looks in one set only.
  [[gnu::always_inline]] bool ownSetProvesAbsence(uint32_t hash, uint64_t arrangement) const {
    return enabled() && isSettled(hash, arrangement, kLeftOut | kBeside);
  }

  // The two steps of a look-up that wait for memory, ahead of it: the set is fetched, then asked
  // for the node with the hash, which nearly always is the right one. Returns: null for none.
  [[gnu::always_inline]] void prefetchSet(uint32_t hash) const {
    if (enabled()) {
      __builtin_prefetch(&sets_[setOf(hash)]);
    }
  }
  // Without branches: nobody can guess in which word it is.
  Node* probable(uint32_t hash) const {
    if (!enabled()) {
      return nullptr;
    }
    const Set& set = sets_[setOf(hash)];
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
  // when none is known. `hashOf(node)`: a node's hash.
  template <class HashOf>
  Node* similar(uint32_t hash, HashOf hashOf) const {
    if (!enabled()) {
      return nullptr;
    }
    const size_t own = setOf(hash);
    for (const Place& place : sets_[own].places) {
      Node* node = nodeOf(place.load(std::memory_order_acquire));
      if (node != nullptr && setOf(hashOf(*node)) == own) {
        return node;
      }
    }
    return nullptr;
  }

  // The node's place: null when there is no room. Requires: the caller has locked the node, a new
  // one before it was linked. Then a rearrangement either waits for it, or had begun before it was
  // linked and is seen here.
  void add(Node* node, uint32_t hash) {
    node->place = nullptr;
    if (!enabled()) {
      return;
    }
    const size_t own = setOf(hash);
    const uint64_t word = wordOf(node, hash);
    node->place = take(sets_[own], word);
    if (node->place == nullptr) {
      node->place = take(sets_[beside(own)], word);
      note(own, node->place != nullptr ? kBeside : kLeftOut);
    }
  }

  // Puts `node` in the place of one with the same key, which has none then. Returns: false when
  // that one had none. Requires: as add(), and the caller has locked the other, too.
  bool replace(Node* other, Node* node, uint32_t hash) {
    if (other->place == nullptr) {
      return false;
    }
    node->place = std::exchange(other->place, nullptr);
    node->place->store(wordOf(node, hash), std::memory_order_seq_cst);
    // The other may be where it belonged before a rearrangement, which met it when it was locked
    // and has gone past this one.
    const size_t own = setOf(hash);
    if (isIn(node, beside(own))) {
      note(own, kBeside);
    } else if (!isIn(node, own)) {
      remove(node);
      add(node, hash);
    }
    return true;
  }

  // Requires: the caller has locked or unlinked the node.
  void remove(Node* node) {
    if (node->place != nullptr) {
      node->place->store(0, std::memory_order_release);
      node->place = nullptr;
    }
  }

  // True when there are too many entries for the sets in use, or when many sets have overflowed
  // that no longer have to.
  bool wantsRearranging(size_t entries) const {
    return crowded(entries) || spoilt(entries);
  }

  // Doubles the sets in use, where `entries` are too many for them, and has every node take its
  // place anew: `placeAll()` removes and adds each one that is in the table all the time, also
  // those that were left out. One thread at a time.
  template <class PlaceAll>
  void rearrange(size_t entries, PlaceAll placeAll) {
    if (!wantsRearranging(entries)) {
      return;  // another thread has done it since
    }
    const size_t before = mask_.load(std::memory_order_relaxed) + 1;
    const size_t after = crowded(entries) ? 2 * before : before;
    if (after != before && before * sizeof(Set) >= kLargePage) {
      // Fewer misses of address translation, where the kernel has large pages to give.
      madvise(sets_ + before, before * sizeof(Set), MADV_HUGEPAGE);
    }
    arrangement_.fetch_add(1, std::memory_order_seq_cst);
    for (size_t i = 0; i < before; ++i) {
      overflows_[i].store(kNone, std::memory_order_release);
    }
    mask_.store(after - 1, std::memory_order_seq_cst);
    cmm_smp_mb();  // before the chains are read
    placeAll();
    newOverflows_.store(0, std::memory_order_relaxed);  // those of now are not to be helped
    arrangement_.fetch_add(1, std::memory_order_seq_cst);
  }

 private:
  static constexpr size_t kWays = 8;
  static constexpr size_t kEntriesPerSet = kWays / 2;  // one entry in 150 finds its set full
  // What may be said of a set: all that belongs there is there; or some of it may be in the set
  // beside it; or some of it may have been left out.
  static constexpr uint8_t kNone = 0;
  static constexpr uint8_t kBeside = 1;
  static constexpr uint8_t kLeftOut = 2;
  static constexpr size_t kFirstSets = 16;
  static constexpr unsigned kAddressBits = 48;
  static constexpr uint64_t kAddressEnd = uint64_t{1} << kAddressBits;
  static constexpr size_t kLargePage = size_t{2} << 20;
  static_assert(sizeof(void*) == sizeof(uint64_t));

  struct alignas(64) Set {
    Place places[kWays];
  };

  bool isSettled(uint32_t hash, uint64_t arrangement, uint8_t unless) const {
    return arrangement % 2 == 0 && (overflow(setOf(hash)) & unless) == 0 &&
           arrangement_.load(std::memory_order_acquire) == arrangement;
  }

  bool crowded(size_t entries) const {
    const size_t sets = mask_.load(std::memory_order_relaxed) + 1;
    return enabled() && entries > sets * kEntriesPerSet && sets < maxSets_;
  }
  // Sets overflow by chance, now and then, and their bytes do not forget it.
  bool spoilt(size_t entries) const {
    const size_t sets = mask_.load(std::memory_order_relaxed) + 1;
    return enabled() && entries <= sets * kEntriesPerSet &&
           newOverflows_.load(std::memory_order_relaxed) > sets / 8 + 4;
  }
  void note(size_t set, uint8_t what) {
    if ((overflows_[set].fetch_or(what, std::memory_order_seq_cst) & what) == 0) {
      newOverflows_.fetch_add(1, std::memory_order_relaxed);
    }
  }

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

  // Returns: the place that the word has got, null when the set is full.
  static Place* take(Set& set, uint64_t word) {
    for (Place& place : set.places) {
      uint64_t free = 0;
      if (place.load(std::memory_order_relaxed) == 0 &&
          place.compare_exchange_strong(free, word, std::memory_order_seq_cst,
                                        std::memory_order_relaxed)) {
        return &place;
      }
    }
    return nullptr;
  }

  bool isIn(const Node* node, size_t set) const {
    const auto& places = sets_[set].places;
    return node->place >= std::begin(places) && node->place < std::end(places);
  }

  static uint64_t wordOf(const Node* node, uint32_t hash) {
    return (uint64_t{tagOf(hash)} << kAddressBits) | reinterpret_cast<uintptr_t>(node);
  }
  // Never 0, so that no free word is taken for a node's.
  static uint16_t tagOf(uint32_t hash) {
    return static_cast<uint16_t>(hash >> 16 | 1);
  }
  static uint16_t tagOf(uint64_t word) {
    return static_cast<uint16_t>(word >> kAddressBits);
  }
  static Node* nodeOf(uint64_t word) {
    return reinterpret_cast<Node*>(word & (kAddressEnd - 1));
  }
  size_t setOf(uint32_t hash) const {
    return hash & mask_.load(std::memory_order_seq_cst);
  }
  // The other of two sets.
  static size_t beside(size_t set) {
    return set ^ 1;
  }
  uint8_t overflow(size_t set) const {
    return overflows_[set].load(std::memory_order_acquire);
  }
  size_t mappedBytes() const {
    return maxSets_ * (sizeof(Set) + sizeof(*overflows_));
  }

  Set* sets_ = nullptr;
  std::atomic<uint8_t>* overflows_ = nullptr;  // of each set
  size_t maxSets_ = 0;
  std::atomic<size_t> mask_{0};
  std::atomic<uint64_t> arrangement_{0};
  std::atomic<size_t> newOverflows_{0};  // bytes' changes since the end of the last rearrangement
};
