// Orp::Ptr<T>: a handle on an object that counts its own references (Orp::PtrInterface).
//
// Threads    : one Ptr belongs to one thread at a time. Handles on one object may be copied and
// dropped by
//              several threads at once only while VFPtrInterface::threadSafePointers_ is true.
// Ownership  : the object is deleted by the handle that takes its count to zero.
// Cost       : a copy is one addition; a locked one when pointers are thread-safe.
// Invariants :
//   (1) an object's count is the number of Ptr (and addRef() without releaseRef()) on it.
//   (2) with thread-safe pointers everything done through a handle before it is dropped happens
//   before the
//       object's destructor.
#pragma once

#include <atomic>
#include <cassert>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

namespace Orp {

// The process-wide choice between plain and atomic counts.
struct VFPtrInterface {
  // True (the default): atomic counts. False: plain counts, for a program of one thread.
  // Requires: set before a second thread starts, never after.
  static bool threadSafePointers_;
};

// Base of every counted object.
class PtrInterface {
 public:
  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  void addRef() const noexcept {
    if (VFPtrInterface::threadSafePointers_) {
      refs_.fetch_add(1, std::memory_order_relaxed);
    } else {
      refs_.store(refs_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }

  // Deletes the object when this was its last reference.
  void releaseRef() const noexcept {
    if (dropOne() == 0) {
      delete this;
    }
  }

  // Whether the object's owner wants to hear of its changes. Any thread.
  bool hasNotificationActive() const { return notificationActive_.load(std::memory_order_relaxed); }
  void hasNotificationActiveIs(bool active) {
    notificationActive_.store(active, std::memory_order_relaxed);
  }

 protected:
  PtrInterface() = default;
  virtual ~PtrInterface();

 private:
  // Returns: the count that is left.
  uint32_t dropOne() const noexcept {
    if (VFPtrInterface::threadSafePointers_) {
      const uint32_t before = refs_.fetch_sub(1, std::memory_order_acq_rel);
      assert(before != 0);
      return before - 1;
    }
    const uint32_t before = refs_.load(std::memory_order_relaxed);
    assert(before != 0);
    refs_.store(before - 1, std::memory_order_relaxed);
    return before - 1;
  }

  mutable std::atomic<uint32_t> refs_{0};
  std::atomic<bool> notificationActive_{false};
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor): null is a Ptr
  explicit Ptr(T* object) noexcept : object_(object) { retain(); }
  Ptr(const Ptr& other) noexcept : object_(other.object_) { retain(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

  template <class U>
  // NOLINTNEXTLINE(google-explicit-constructor)
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other)
  noexcept : object_(other.get()) { retain(); }
  template <class U>
  // NOLINTNEXTLINE(google-explicit-constructor)
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
  noexcept : object_(other.detach()) {}

  ~Ptr() {
    if (object_ != nullptr) {
      object_->releaseRef();
    }
  }

  Ptr& operator=(const Ptr& other) noexcept {
    Ptr(other).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    Ptr(std::move(other)).swap(*this);
    return *this;
  }
  Ptr& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }

  void reset() noexcept { Ptr().swap(*this); }
  void reset(T* object) noexcept { Ptr(object).swap(*this); }
  void swap(Ptr& other) noexcept { std::swap(object_, other.object_); }

  T* get() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  T* operator->() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  // Gives the reference away: the caller owes one releaseRef().
  [[nodiscard]] T* detach() noexcept { return std::exchange(object_, nullptr); }

 private:
  void retain() const noexcept {
    if (object_ != nullptr) {
      object_->addRef();
    }
  }

  T* object_ = nullptr;
};

template <class T, class U>
bool operator==(const Ptr<T>& a, const Ptr<U>& b) noexcept {
  return a.get() == b.get();
}
template <class T>
bool operator==(const Ptr<T>& a, std::nullptr_t) noexcept {
  return a.get() == nullptr;
}
template <class T, class U>
bool operator==(const Ptr<T>& a, const U* b) noexcept {
  return a.get() == b;
}

// A new T in its first handle. T's own operator new, if it has one, gives the memory.
template <class T, class... A>
Ptr<T> makePtr(A&&... args) {
  return Ptr<T>(new T(std::forward<A>(args)...));
}

// Returns: a handle on the same object as a T; null when it is not a T.
template <class T, class U>
Ptr<T> ptrCast(const Ptr<U>& from) {
  return Ptr<T>(dynamic_cast<T*>(from.get()));
}

}  // namespace Orp

template <class T>
struct std::hash<Orp::Ptr<T>> {
  size_t operator()(const Orp::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.get()); }
};
