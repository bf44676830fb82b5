#include "Nynet/Pkt.h"

#include <glog/logging.h>

#include <algorithm>
#include <cstring>

namespace Nynet {
namespace {

// Whether `data` points into, or right behind, the region.
bool ptrWithinRegion(const uint8_t* data, const uint8_t* region, size_t size) {
  return data >= region && data <= region + size;
}

}  // namespace

// A counted buffer and the place in it where the packet begins.
class Pkt::SharedHeadData : public Orp::PtrInterface, public NySlab::SlabObject {
 public:
  explicit SharedHeadData(size_t size)
      : size_(size), buffer_(static_cast<uint8_t*>(NySlab::slabAlloc(roomFor(size)))) {
    std::memset(buffer_, 0, roomFor(size));
    data_ = buffer_;
  }

  uint8_t* data() const {
    // clang-format off
    CHECK(ptrWithinRegion( data_, buffer_, size_ ));
    // clang-format on
    return data_;
  }
  size_t size() const { return size_; }

 protected:
  ~SharedHeadData() override { NySlab::slabFree(buffer_, roomFor(size_)); }

 private:
  // A buffer of no bytes has an address too.
  static size_t roomFor(size_t size) { return std::max<size_t>(size, 1); }

  const size_t size_;
  uint8_t* const buffer_;
  uint8_t* data_ = nullptr;
};

Pkt::Pkt() = default;
Pkt::~Pkt() = default;

uint8_t* Pkt::newSharedHeadData(unsigned size) {
  head_ = Orp::makePtr<SharedHeadData>(size);
  firstIoVec_ = maxIovecs_ - 1;
  ioVecs_[firstIoVec_] = {head_->data(), head_->size()};
  return head_->data();
}

const uint8_t* Pkt::headData() const {
  CHECK(firstIoVec_ != maxIovecs_);
  return static_cast<const uint8_t*>(ioVecs_[firstIoVec_].iov_base);
}

unsigned Pkt::headDataLength() const noexcept {
  return hasHeadData() ? static_cast<unsigned>(ioVecs_[firstIoVec_].iov_len) : 0;
}

Orp::Ptr<Pkt> Pkt::Manager::newPkt() {
  return Orp::Ptr<Pkt>(new Pkt());
}

Pkt::Manager* globalPktManager() {
  static Pkt::Manager manager;  // nothing to destroy
  return &manager;
}

}  // namespace Nynet
