#include "Base/Flit/Ring.h"

#include <algorithm>

namespace Flit {

bool Ring::Cell::get(uint64_t expected, Body& to) const {
  if (stamp.load(std::memory_order_acquire) != expected) {
    return false;
  }
  for (unsigned i = 0; i < kBodyWords; ++i) {
    to[i] = body[i].load(std::memory_order_acquire);
  }
  return stamp.load(std::memory_order_relaxed) == expected;
}

Ring::Ring(uint32_t slot) : slot_(slot), cells_(std::make_unique<Cell[]>(kRingCells)) {}

void Ring::append(uint64_t ticks, uint32_t point, const uint64_t* words, unsigned count) noexcept {
  uint64_t position = head_.load(std::memory_order_relaxed);
  // A thread that moved to another processor may see the counter a little behind.
  lastTicks_ = std::max(lastTicks_, ticks);

  Cell& first = cells_[position & kMask];
  first.open();
  first.put(0, lastTicks_);
  first.put(1, uint64_t{point} << 32 | count);
  unsigned done = std::min(count, kFirstValues);
  for (unsigned i = 0; i < done; ++i) {
    first.put(kHeadWords + i, words[i]);
  }
  first.close(stampOf(position++, true));

  while (done < count) {
    Cell& cell = cells_[position & kMask];
    cell.open();
    for (unsigned i = 0; i < kBodyWords && done < count; ++i) {
      cell.put(i, words[done++]);
    }
    cell.close(stampOf(position++, false));
  }
  head_.store(position, std::memory_order_release);
}

void Ring::read(RawRecords& to) const {
  const uint64_t head = head_.load(std::memory_order_acquire);
  uint64_t position = head > kRingCells ? head - kRingCells : 0;
  while (position < head) {
    position = readOne(position, to);
  }
}

uint64_t Ring::readOne(uint64_t position, RawRecords& to) const {
  Body body;
  if (!cells_[position & kMask].get(stampOf(position, true), body)) {
    return position + 1;
  }
  const auto count = static_cast<unsigned>(body[1] & ~uint32_t{0});
  const RawRecord record = {body[0], static_cast<uint32_t>(body[1] >> 32), slot_, to.words.size(),
                            count};
  const uint64_t end = position + cellsFor(count);
  const unsigned inFirst = std::min(count, kFirstValues);
  to.words.insert(to.words.end(), body.begin() + kHeadWords, body.begin() + kHeadWords + inFirst);
  for (unsigned done = inFirst; ++position < end;) {
    if (!cells_[position & kMask].get(stampOf(position, false), body)) {
      to.words.resize(record.firstWord);  // overwritten meanwhile
      return position;
    }
    const unsigned here = std::min(count - done, kBodyWords);
    to.words.insert(to.words.end(), body.begin(), body.begin() + here);
    done += here;
  }
  to.records.push_back(record);
  return end;
}

}  // namespace Flit
