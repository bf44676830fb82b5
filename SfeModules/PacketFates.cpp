#include "SfeModules/PacketFates.h"

namespace SfeModules {

const char* PacketFates::name(Fate fate) {
  static constexpr std::array<const char*, kFates> kNames = {"passed",
                                                             "forwarded",
                                                             "held",
                                                             "reinjected",
                                                             "copied",
                                                             "copy_failed",
                                                             "drop_cut_off",
                                                             "drop_pim",
                                                             "drop_link_local",
                                                             "drop_non_multicast_intf",
                                                             "drop_ttl",
                                                             "drop_no_route",
                                                             "drop_cache_full",
                                                             "drop_wrong_intf",
                                                             "drop_not_register",
                                                             "drop_no_oifs",
                                                             "drop_gate",
                                                             "drop_expired"};
  return kNames[static_cast<size_t>(fate)];
}

void PacketFates::nameIs(const std::string& prefix) {
  for (size_t i = 0; i < kFates; ++i) {
    ids_[i] = counterId(prefix + "." + name(static_cast<Fate>(i)));
  }
}

}  // namespace SfeModules
