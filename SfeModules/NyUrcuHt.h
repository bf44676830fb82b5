// NyRcuHt<K, V, A>: the one hash table of the module; lock-free readers, RCU reclamation (QSBR).
//
// Threads    | operation                           | control | worker | publisher | reader |
//            | lookup, find, contains, walk        |   yes   |  yes   |    yes    |  yes   |
//            | prefetch, locate, departures        |   yes   |  yes   |    yes    |  yes   |
//            | insert, findOrInsert, erase(Node)   |   yes   |  yes   |    yes    |   -    |
//            | construct                           |   yes   |  yes   |    yes    |  yes   |
//            | destroy                             | the last owner, wherever it runs         |
//              Any two of the first three rows may run at once, also for the same key.
// Read side  : every thread above is a registered QSBR thread. A read side lasts from going online,
//              or from the last quiescent state, to the next quiescent state; it takes no call.
//              Destroying a table and, without deferred free, every removal is a quiescent state of
//              the calling thread: references, iterators and cds_lfht_iter that it got earlier, of
//              any table, are void afterwards.
// Ownership  : the table owns its nodes; values are copied out. A std::shared_ptr value that is
//              copied and dropped inside one read side is never the last owner of its object.
// Errors     : see the constructor and the destructor. Exhausted DPDK memory stops the process.
// Cost       : find(): a CRC of the key, a line of the index and one of the node; a chain walk
// where
//              there is no index, while it is rearranged, and for a hash of which it has not all.
//              No lock, no write. lookup() copies the value besides. An insertion or a removal may
//              wait for the moment that another thread's takes at the same entry.
// Invariants :
//   (1) a key is in the table at most once at any moment; replacing it is one atomic step.
//   (2) a node is complete before it can be found, and its key and value never change after.
//   (3) a node is freed exactly once, by whoever unlinked it: the remover whose cds_lfht_del
//       succeeded or the replacer that got it back.
//   (4) no node is freed before every reader that might have found it had a quiescent state.
//   (5) values are destroyed on RCU's call_rcu thread (deferred free), else on the remover's.
//   (6) with an index or without, a look-up finds what is in the table at that moment. An entry
//   whose
//       insertion has not returned may be found, or not, by each look-up anew.
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
#include "Base/RcuCallbacks.h"
#include "SfeModules/Assert.h"
#include "SfeModules/CrcHash.h"
#include "SfeModules/NyUrcuHtIndex.h"
#include "SfeModules/NyUrcuHtNode.h"
#include "SfeModules/RteAllocator.h"

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
  static_assert(std::is_standard_layout_v<NyRcuHtLink> && std::is_standard_layout_v<NyRcuHtReclaim>,
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

    // Rises from entry to entry of a walk; the same where hashes are. Requires: stands on a node.
    unsigned long order() const { return iter_.node->reverse_hash; }
    const cds_lfht_node* link() const { return iter_.next; }  // with liburcu's flags: a hint

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
  // with the key and the value of a node when it is freed, before they are destroyed.
  // `indexedEntries`: how many entries find() is to reach without a walk, with deferred free only;
  // more are found all the same. Errors: std::runtime_error "failed to construct" when liburcu
  // makes no table.
  explicit NyRcuHt(uint32_t initialSize = kDefaultBuckets,
                   bool deferredFree = true,
                   uint32_t minBuckets = kDefaultBuckets,
                   KeyRelease releaseKey = nullptr,
                   ValueRelease releaseValue = nullptr,
                   uint32_t indexedEntries = 0)
      : initialSize_(initialSize),
        seed_(static_cast<uint32_t>(std::time(nullptr))),
        deferredFree_(deferredFree),
        releaseKey_(releaseKey),
        releaseValue_(releaseValue),
        index_(indexedEntries) {
    table_ = _cds_lfht_new(initialSize_, minBuckets, 0, CDS_LFHT_AUTO_RESIZE | CDS_LFHT_ACCOUNTING,
                           nullptr, &urcu_qsbr_flavor, nullptr);
    // The two together are untried: who needs an index does not wait for each removal.
    SFE_ASSERT(deferredFree_ || !index_.enabled());
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
    return Node::sameKey(Node::of(node)->key, *static_cast<const K*>(key)) ? 1 : 0;
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
    const V* found = find(key);
    if (found == nullptr) {
      return false;
    }
    value = *found;
    return true;
  }

  // Returns: the value in place, null when the key is absent. RCU: valid in the caller's read side.
  const V* find(const K& key) const { return find(key, nyHash(key)); }

  // The same with the key's hash, which the caller has from nyHash().
  [[gnu::noinline]] const V* find(const K& key, uint32_t hash) const {
    const uint64_t arrangement = index_.arrangement();
    Node* found = index_.find(key, hash);
    // The chains decide: a node that was replaced or removed stays in the index for a moment.
    if (found != nullptr && cds_lfht_is_node_deleted(&found->htNode) == 0) [[likely]] {
      SFE_RCU_DEREFERENCE(&found->htNode);
      return &found->value;
    }
    if (found == nullptr && index_.provesAbsence(hash, arrangement)) {
      return nullptr;
    }
    cds_lfht_iter iter;
    const Node* node = findNode(key, hash, iter);
    return node == nullptr ? nullptr : &node->value;
  }

  // The same in steps, each of which finds in the caches what the one before has fetched: prefetch,
  // then locate, then find. `arrangement`: as it was before the first locate().
  // RCU: one read side for all of them.
  uint64_t arrangement() const { return index_.arrangement(); }
  [[gnu::always_inline]] void prefetch(uint32_t hash) const { index_.prefetchSet(hash); }
  [[gnu::always_inline]] const Node* locate(uint32_t hash) const {
    const Node* node = index_.probable(hash);
    __builtin_prefetch(node);
    return node;
  }
  [[gnu::always_inline]] const V* find(const K& key,
                                       uint32_t hash,
                                       const Node* located,
                                       uint64_t arrangement) const {
    if (located != nullptr && Node::sameKey(located->key, key) &&
        cds_lfht_is_node_deleted(const_cast<cds_lfht_node*>(&located->htNode)) == 0) [[likely]] {
      SFE_RCU_DEREFERENCE(&located->htNode);
      return &located->value;
    }
    if (located == nullptr && index_.ownSetProvesAbsence(hash, arrangement)) {
      return nullptr;
    }
    return find(key, hash);
  }

  // Counts the entries that have left the table, from 1 on. A value that was found after this
  // number was read stays valid in every read side in which it is read and is the same.
  uint64_t departures() const { return departures_.load(std::memory_order_acquire); }

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
      indexNew(node, hash);
      return true;
    }
    SFE_RCU_DEREFERENCE(replaced);
    Node* other = Node::of(replaced);
    lockOwned(other);
    if (!index_.replace(other, node, hash)) {
      index_.add(node, hash);
    }
    node->unlock();
    other->ownership.store(Node::kUnlinked, std::memory_order_release);
    retire(other);
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
      freeNode(node);                      // never reachable
      Node::of(present)->awaitUnlocked();  // whoever inserts it: then find() finds it too
    } else {
      indexNew(node, hash);
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

  // A position on the first of the entries of some hash that the index has in one set with `hash`.
  NyRcuHtIterator near(uint32_t hash) const {
    NyRcuHtIterator at(table_);
    const auto hashOf = [this](const Node& node) { return nyHash(node.key); };
    if (const Node* node = index_.similar(hash, hashOf); node != nullptr) {
      const auto any = [](cds_lfht_node*, const void*) { return 1; };
      cds_lfht_lookup(table_, nyHash(node->key), any, nullptr, &at.iter_);
      SFE_RCU_DEREFERENCE(at.iter_.node);
    }
    return at;
  }

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
    return findNode(key, nyHash(key), iter);
  }
  Node* findNode(const K& key, uint32_t hash, cds_lfht_iter& iter) const {
    cds_lfht_lookup(table_, hash, &nyMatch, &key, &iter);
    return iter.node == nullptr ? nullptr : Node::of(iter.node);
  }

  // Puts a node that this thread has linked into the index, and unlocks it.
  void indexNew(Node* node, uint32_t hash) {
    index_.add(node, hash);
    if (!index_.enabled()) {
      node->unlock();
      return;
    }
    const size_t entries = entries_.fetch_add(1, std::memory_order_relaxed) + 1;
    node->unlock();
    if (index_.wantsRearranging(entries) &&
        !rearranging_.exchange(true, std::memory_order_acquire)) {
      index_.rearrange(entries, [this] { placeAll(); });
      rearranging_.store(false, std::memory_order_release);
    }
  }

  // Each node takes its place in the index anew.
  void placeAll() {
    for (NyRcuHtIterator position = begin(); position != end(); ++position) {
      Node* node = position.node();
      if (node->lock()) {
        index_.remove(node);
        index_.add(node, nyHash(node->key));
        node->unlock();
      }
    }
  }

  // When cds_lfht_del fails, another remover or replacer unlinked the node and frees it, once,
  // after a grace period: readers may still be on it, so the one that came late leaves it alone.
  bool removeNode(Node* node) {
    if (cds_lfht_del(table_, &node->htNode) != 0) {
      return false;
    }
    takeOwnership(node);
    if (index_.enabled()) {
      entries_.fetch_sub(1, std::memory_order_relaxed);
    }
    retire(node);
    return true;
  }

  // Locks a node that this thread has unlinked: nobody moves it, and its inserter is done with it.
  // A second owner would be a double free and stops the process.
  static void lockOwned(Node* node) {
    const bool wasLinked = node->lock();
    SFE_ASSERT(wasLinked);
  }

  // Marks the node as taken out.
  static void takeOwnership(Node* node) {
    lockOwned(node);
    node->ownership.store(Node::kUnlinked, std::memory_order_release);
  }

  // After this nobody finds the node any more, and nobody puts it back into the index.
  void unindex(Node* node) {
    if (node->place != nullptr) {
      index_.remove(node);
    }
  }

  // Requires: the node is owned.
  void retire(Node* node) {
    unindex(node);
    // Nobody finds the node any more, and its grace period has not begun.
    departures_.fetch_add(1, std::memory_order_release);
    SFE_RCU_RETIRE(&node->htNode);
    if (deferredFree_) {
      RcuCallbacks::queued();
      urcu_qsbr_call_rcu(&node->rcuHead, &freeRetired);
      return;
    }
    SFE_RCU_QUIESCENT();
    urcu_qsbr_synchronize_rcu();
    freeNode(node);
  }

  // What retire() queued, which is counted; a callback of somebody else's call_rcu is not.
  static void freeRetired(rcu_head* head) {
    freeNodeAsync(head);
    RcuCallbacks::ran();
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
        unindex(node);
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
  NyRcuHtIndex<Node> index_;
  std::atomic<size_t> entries_{0};  // counted where there is an index
  std::atomic<bool> rearranging_{false};
  std::atomic<uint64_t> departures_{1};
};
