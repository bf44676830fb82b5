#include "Base/Trace.h"

namespace Trace {

uint32_t Point::enrol(std::span<const std::string_view> labels,
                      std::span<const Flit::ArgKind> kinds) {
  facility_.store(&Gemlog::facility(facilityName_), std::memory_order_relaxed);
  const uint32_t id = Flit::registerPoint({signature_, level_, labels, kinds});
  id_.store(id, std::memory_order_release);
  return id;
}

}  // namespace Trace
