#include "Sfe/Multicast/IntfCounter.h"

#include <algorithm>

namespace Sfe::Multicast {

void IntfCounter::toWords(std::span<uint64_t, kShape.recordWords()> words) const {
  words[0] = intfId_.value();
  std::copy(counters_.begin(), counters_.end(), words.begin() + kShape.keyWords);
}

bool IntfCounter::fromWords(std::span<const uint64_t, kShape.recordWords()> words,
                            IntfCounter* out) {
  out->intfId_ = Nynet::IntfId(words[0]);
  std::copy(words.begin() + kShape.keyWords, words.end(), out->counters_.begin());
  return true;
}

}  // namespace Sfe::Multicast
