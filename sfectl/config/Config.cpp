#include "sfectl/config/Config.h"

#include "sfectl/Arguments.h"

namespace Sfectl {

const char* familyTitle(Family family) {
  return family == Family::kIpv4 ? "IPv4" : "IPv6";
}

const char* familyWord(Family family) {
  return family == Family::kIpv4 ? "ipv4" : "ipv6";
}

std::string routeText(const RouteKey& key) {
  const bool any = key.source.find_first_not_of('\0') == std::string::npos;
  return "(" + (any ? "*" : addressText(key.source)) + "," + addressText(key.group) + ")";
}

}  // namespace Sfectl
