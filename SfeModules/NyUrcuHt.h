// NyRcuHt<K, V, A>: the one hash table of the module; lock-free readers, RCU reclamation (QSBR).
//
// Threads    | operation                           | control | worker | publisher | reader |
//            | lookup, find, contains, walk        |   yes   |  yes   |    yes    |  yes   |
//            | insert, findOrInsert, erase(Node)   |   yes   |  yes   |    yes    |   -    |
//            | construct                           |   yes   |  yes   |    yes    |  yes   |
//            | destroy                             | the last owner, wherever it runs         |
//              Any two of the first two rows may run at once, also for the same key.
// Read side  : every thread above is a registered QSBR thread. A read side lasts from going online,
//              or from the last quiescent state, to the next quiescent state; it takes no call.
//              Destroying a table and, without deferred free, every removal is a quiescent state of
//              the calling thread: references, iterators and cds_lfht_iter that it got earlier, of
//              any table, are void afterwards.
// Ownership  : the table owns its nodes; values are copied out. A std::shared_ptr value that is
//              copied and dropped inside one read side is never the last owner of its object.
// Errors     : see the constructor and the destructor. Exhausted DPDK memory stops the process.
// Cost       : lookup(): a CRC of the key, a chain walk, the value's copy; no lock, no write.
// Invariants :
//   (1) a key is in the table at most once at any moment; replacing it is one atomic step.
//   (2) a node is complete before it can be found, and its key and value never change after.
//   (3) a node is freed exactly once, by whoever unlinked it: the remover whose cds_lfht_del
//       succeeded or the replacer that got it back.
//   (4) no node is freed before every reader that might have found it had a quiescent state.
//   (5) values are destroyed on RCU's call_rcu thread (deferred free), else on the remover's.
#pragma once

#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <iostream>
#include <iterator>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "Base/RcuAnnotate.h"
#include "SfeModules/Assert.h"
#include "SfeModules/CrcHash.h"
#include "SfeModules/RteAllocator.h"

// What liburcu links; a base class of its own so that both addresses lead back to the node.
struct NyRcuHtLink {
  cds_lfht_node htNode{};
  rcu_head rcuHead{};
};

template <class K, class V>
struct NyRcuHtNode : NyRcuHtLink {
  using KeyRelease = void (*)(K&);
  using ValueRelease = void (*)(V&);

  NyRcuHtNode(const K& k, V&& v, KeyRelease onKey, ValueRelease onValue)
      : key(k), value(std::move(v)), releaseKey(onKey), releaseValue(onValue) {}

  static NyRcuHtNode* of(cds_lfht_node* htNode) {
    return static_cast<NyRcuHtNode*>(reinterpret_cast<NyRcuHtLink*>(htNode));
  }
  static NyRcuHtNode* of(rcu_head* head) {
    auto* link = reinterpret_cast<char*>(head) - offsetof(NyRcuHtLink, rcuHead);
    return static_cast<NyRcuHtNode*>(reinterpret_cast<NyRcuHtLink*>(link));
  }

  K key;
  V value;
  KeyRelease releaseKey;           // called with the key when the node is freed; may be null
  ValueRelease releaseValue;       // called with the value likewise; may be null
  std::atomic<uint8_t> linked{1};  // cleared once, by the node's owner, when it is unlinked
};

template <class K, class V, class A = Dpdk::RteAllocator<NyRcuHtNode<K, V>, 0>>
class NyRcuHt {
 public:
  using Node = NyRcuHtNode<K, V>;
  using KeyRelease = typename Node::KeyRelease;
  using ValueRelease = typename Node::ValueRelease;

  static_assert(sizeof(K) % sizeof(uint64_t) == 0, "a key is hashed in 8-byte words");
  static_assert(std::is_trivially_copyable_v<K> && std::has_unique_object_representations_v<K>,
                "a key is compared and hashed as raw bytes");
  static_assert(std::is_nothrow_move_constructible_v<V>, "a node is filled in one step");
  static_assert(std::is_standard_layout_v<NyRcuHtLink> && offsetof(NyRcuHtLink, htNode) == 0,
                "liburcu's pointers lead back to the node");

  // A position in the table; input iterator. The end is the position on no node.
  // RCU: valid in the read side in which it was made, also when its node is erased meanwhile.
  class NyRcuHtIterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = std::pair<K, V>;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = std::pair<K, V>;

    // Returns: a copy of key and value. Requires: the iterator stands on a node.
    std::pair<K, V> operator*() {
      Node* nyNode = node();
      SFE_ASSERT(nyNode);
      return std::pair<K, V>(nyNode->key, nyNode->value);
    }

    // The same without a copy, for the rest of the read side. Requires: stands on a node.
    const K& key() const { return node()->key; }
    const V& value() const { return node()->value; }

    // Lets the next position come from memory while the caller is busy with this one.
    void prefetchNext() const { __builtin_prefetch(iter_.next); }

    NyRcuHtIterator& operator++() {
      cds_lfht_next(table_, &iter_);
      SFE_RCU_DEREFERENCE(iter_.node);
      return *this;
    }

    friend bool operator==(const NyRcuHtIterator& a, const NyRcuHtIterator& b) {
      return a.iter_.node == b.iter_.node;
    }

   private:
    friend class NyRcuHt;
    explicit NyRcuHtIterator(cds_lfht* table) : iter_{}, table_(table) {}
    Node* node() const { return iter_.node == nullptr ? nullptr : Node::of(iter_.node); }

    cds_lfht_iter iter_;
    cds_lfht* table_;
  };

  // A table that starts with `initialSize` buckets, never has fewer than `minBuckets`, and grows
  // and shrinks by itself; both are powers of two. `deferredFree`: removed nodes are freed through
  // call_rcu; otherwise each removal waits for a grace period. The release callbacks are called
  // with the key and the value of a node when it is freed, before they are destroyed. Errors:
  // std::runtime_error "failed to construct" when liburcu makes no table.
  explicit NyRcuHt(uint32_t initialSize = kDefaultBuckets,
                   bool deferredFree = true,
                   uint32_t minBuckets = kDefaultBuckets,
                   KeyRelease releaseKey = nullptr,
                   ValueRelease releaseValue = nullptr)
      : initialSize_(initialSize),
        seed_(static_cast<uint32_t>(std::time(nullptr))),
        deferredFree_(deferredFree),
        releaseKey_(releaseKey),
        releaseValue_(releaseValue) {
    table_ = _cds_lfht_new(initialSize_, minBuckets, 0, CDS_LFHT_AUTO_RESIZE | CDS_LFHT_ACCOUNTING,
                           nullptr, &urcu_qsbr_flavor, nullptr);
    if (table_ == nullptr) {
      std::cerr << "Error allocating hash table" << std::endl;
      throw std::runtime_error("failed to construct");
    }
  }

  NyRcuHt(const NyRcuHt&) = delete;
  NyRcuHt& operator=(const NyRcuHt&) = delete;

  // Removes and frees every node. Requires: no other thread uses the table any more.
  // RCU: waits for a grace period. The calling thread is online or offline afterwards as before.
  // Errors: std::runtime_error "failed to destruct object" when liburcu keeps the table, that is
  //   when an entry was added while the table was being emptied.
  ~NyRcuHt() noexcept(false) {
    const bool wasOnline = urcu_qsbr_read_ongoing() != 0;
    if (!wasOnline) {
      urcu_qsbr_thread_online();  // the walk passes bucket nodes, which a resize may be freeing
    }
    std::vector<Node*> removed = unlinkAll();
    SFE_RCU_QUIESCENT();
    urcu_qsbr_synchronize_rcu();
    for (Node* node : removed) {
      freeNode(node);
    }
    // cds_lfht_destroy must not run inside a read side.
    SFE_RCU_QUIESCENT();
    urcu_qsbr_thread_offline();
    const int error = cds_lfht_destroy(table_, nullptr);
    if (wasOnline) {
      urcu_qsbr_thread_online();
    }
    table_ = nullptr;
    if (error != 0) {
      std::cerr << "Destroying hash table failed" << std::endl;
      throw std::runtime_error("failed to destruct object");
    }
  }

  // CRC32C of the key's words, started from the table's (the given) seed.
  uint32_t nyHash(const K& key) const { return nyHash(key, seed_); }
  static uint32_t nyHash(const K& key, uint32_t seed) {
    return SfeModules::crcHash(&key, sizeof(K), seed);
  }

  // Returns: 1 when the node's key equals the K at `key` byte for byte, else 0.
  static int nyMatch(cds_lfht_node* node, const void* key) {
    SFE_RCU_DEREFERENCE(node);
    return std::memcmp(&Node::of(node)->key, key, sizeof(K)) == 0 ? 1 : 0;
  }

  // Copies the key's value into `value`, which is untouched when the key is absent; `iter` is left
  // on the node or on none. RCU: read side of the caller; the copy outlives it.
  bool lookup(const K& key, V& value, cds_lfht_iter& iter) const {
    const Node* node = findNode(key, iter);
    if (node == nullptr) {
      return false;
    }
    value = node->value;
    return true;
  }
  bool lookup(const K& key, V& value) const {
    cds_lfht_iter iter;
    return lookup(key, value, iter);
  }

  // Returns: the value in place, null when the key is absent. RCU: valid in the caller's read side.
  const V* find(const K& key) const {
    cds_lfht_iter iter;
    const Node* node = findNode(key, iter);
    return node == nullptr ? nullptr : &node->value;
  }

  bool contains(const K& key) const { return find(key) != nullptr; }

  // Inserts the key or replaces its value. Returns: true when the key is new.
  // RCU: read side of the caller; the value is visible on return, a replaced one is retired.
  bool insert(const K& key, V value) {
    Node* node =
        new (allocator_.allocate(1)) Node(key, std::move(value), releaseKey_, releaseValue_);
    const uint32_t hash = nyHash(node->key);
    SFE_RCU_PUBLISH(&node->htNode);
    cds_lfht_node* replaced =
        cds_lfht_add_replace(table_, hash, &nyMatch, &node->key, &node->htNode);
    if (replaced == nullptr) {
      return true;
    }
    SFE_RCU_DEREFERENCE(replaced);
    retire(Node::of(replaced));
    return false;
  }

  // Inserts the key where it is absent; a value that is there stays.
  // Returns: the value in place: every caller that meets the same node gets the same one.
  // RCU: read side of the caller, in which the value stays valid.
  const V* findOrInsert(const K& key, V value) {
    Node* node =
        new (allocator_.allocate(1)) Node(key, std::move(value), releaseKey_, releaseValue_);
    const uint32_t hash = nyHash(node->key);
    SFE_RCU_PUBLISH(&node->htNode);
    cds_lfht_node* present = cds_lfht_add_unique(table_, hash, &nyMatch, &node->key, &node->htNode);
    if (present != &node->htNode) {
      SFE_RCU_DEREFERENCE(present);
      freeNode(node);  // never reachable
    }
    return &Node::of(present)->value;
  }

  // Returns: true when this call removed the key, false when it was absent or another thread's call
  // removed it. RCU: read side of the caller; the node is retired.
  bool erase(const K& key) {
    cds_lfht_iter iter;
    Node* node = findNode(key, iter);
    return node != nullptr && removeNode(node);
  }

  // Removes the entry under `position`, which may be stepped on afterwards (with deferred free).
  // Returns and RCU: as erase(). Requires: stands on a node of this table.
  bool eraseNode(const NyRcuHtIterator& position) {
    Node* nyNode = position.node();
    SFE_ASSERT(nyNode);
    return removeNode(nyNode);
  }

  // A walk sees every entry that is in the table from its start to its end once, and one that comes
  // or goes meanwhile at most once. The order is the hash's. RCU: read side of the caller.
  NyRcuHtIterator begin() const {
    NyRcuHtIterator position(table_);
    cds_lfht_first(table_, &position.iter_);
    SFE_RCU_DEREFERENCE(position.iter_.node);
    return position;
  }
  NyRcuHtIterator end() const { return NyRcuHtIterator(table_); }

  // The number of entries, exact only while nobody writes; walks the table. RCU: read side.
  size_t size() const {
    long before = 0;
    long after = 0;
    unsigned long nodes = 0;
    cds_lfht_count_nodes(table_, &before, &nodes, &after);
    return nodes;
  }

  // The callback of call_rcu for a retired node: releases and destroys key and value, frees.
  static void freeNodeAsync(rcu_head* head) { freeNode(Node::of(head)); }

  cds_lfht* table() const { return table_; }
  uint32_t initialSize() const { return initialSize_; }
  uint32_t seed() const { return seed_; }
  bool deferredFree() const { return deferredFree_; }

 private:
  static constexpr uint32_t kDefaultBuckets = 128;

  Node* findNode(const K& key, cds_lfht_iter& iter) const {
    cds_lfht_lookup(table_, nyHash(key), &nyMatch, &key, &iter);
    return iter.node == nullptr ? nullptr : Node::of(iter.node);
  }

  // When cds_lfht_del fails, another remover or replacer unlinked the node and frees it, once,
  // after a grace period: readers may still be on it, so the one that came late leaves it alone.
  bool removeNode(Node* node) {
    if (cds_lfht_del(table_, &node->htNode) != 0) {
      return false;
    }
    retire(node);
    return true;
  }

  // Marks the node as taken out. A second owner would be a double free and stops the process.
  static void takeOwnership(Node* node) {
    const bool wasLinked = node->linked.exchange(0, std::memory_order_acq_rel) != 0;
    SFE_ASSERT(wasLinked);
  }

  void retire(Node* node) {
    takeOwnership(node);
    SFE_RCU_RETIRE(&node->htNode);
    if (deferredFree_) {
      urcu_qsbr_call_rcu(&node->rcuHead, &freeNodeAsync);
      return;
    }
    SFE_RCU_QUIESCENT();
    urcu_qsbr_synchronize_rcu();
    freeNode(node);
  }

  // Requires: unlinked, and no reader is left on it.
  static void freeNode(Node* node) {
    SFE_RCU_RECLAIM(&node->htNode);
    if (node->releaseKey != nullptr) {
      node->releaseKey(node->key);
    }
    if (node->releaseValue != nullptr) {
      node->releaseValue(node->value);
    }
    node->~Node();
    A::deallocate(node, 1);
  }

  std::vector<Node*> unlinkAll() {
    std::vector<Node*> removed;
    for (NyRcuHtIterator position = begin(); position != end(); ++position) {
      Node* node = position.node();
      if (cds_lfht_del(table_, &node->htNode) == 0) {
        takeOwnership(node);
        SFE_RCU_RETIRE(&node->htNode);
        removed.push_back(node);
      }
    }
    return removed;
  }

  A allocator_;
  cds_lfht* table_ = nullptr;
  const uint32_t initialSize_;
  const uint32_t seed_;
  const bool deferredFree_;
  const KeyRelease releaseKey_;
  const ValueRelease releaseValue_;
};
