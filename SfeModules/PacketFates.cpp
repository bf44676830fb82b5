#include "SfeModules/PacketFates.h"

namespace SfeModules {

const char* counterName(Fate fate) {
  static constexpr std::array<const char*, static_cast<size_t>(Fate::kCount)> kNames = {
      "passed",
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

const char* counterName(Notification notification) {
  static constexpr std::array<const char*, static_cast<size_t>(Notification::kCount)> kNames = {
      "notify_nocache", "notify_wrongvif", "notify_wholepkt", "suppressed_nocache",
      "suppressed_wrongvif"};
  return kNames[static_cast<size_t>(notification)];
}

}  // namespace SfeModules
