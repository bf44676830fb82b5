#include "sfectl/Notification.h"

#include <algorithm>

#include "sfectl/Arguments.h"

namespace Sfectl {
namespace {

using Routing::Multicast::Notify::CacheReport;
namespace Notify = Routing::Multicast::Notify;

constexpr size_t kKeyWidth = 32;

std::string eventName(uint8_t kind) {
  switch (kind) {
    case Notify::kKindNoCache:
      return "nocache";
    case Notify::kKindWrongVif:
      return "wrongvif";
    case Notify::kKindWholePkt:
      return "wholepkt";
    case Notify::kKindWrVifWhole:
      return "wrvifwhole";
    default:
      return "kind" + std::to_string(kind);
  }
}

bool carriesPacket(const CacheReport& report) {
  return report.kind == Notify::kKindWholePkt || report.kind == Notify::kKindWrVifWhole;
}

std::string iifText(const CacheReport& report) {
  return report.intfId ? intfText(*report.intfId) : "vif" + std::to_string(report.vifId);
}

}  // namespace

std::string notificationText(const CacheReport& report) {
  std::string key = "(" + report.source.stringValue() + "," + report.group.stringValue() + ")";
  key.resize(std::max(key.size(), kKeyWidth), ' ');
  std::string line = eventName(report.kind) + " " + key + " Iif: " + iifText(report);
  if (carriesPacket(report)) {
    line += "  Length: " + std::to_string(report.pkt.size());
  }
  return line;
}

Json notificationJson(const CacheReport& report) {
  Json result{{"event", eventName(report.kind)},
              {"src", report.source.stringValue()},
              {"dst", report.group.stringValue()},
              {"iif", iifText(report)}};
  if (carriesPacket(report)) {
    result["length"] = report.pkt.size();
  }
  return result;
}

}  // namespace Sfectl
