// One notification as a line for people or for programs.
#pragma once

#include <string>

#include "Routing/Multicast/Notify/CacheReport.h"
#include "sfectl/Report.h"

namespace Sfectl {

// The event and then the line of `ip monitor mroute`, as far as a notification knows it:
// "nocache (10.0.0.2,239.1.1.1)             Iif: Ethernet0"; a whole packet adds "  Length: 128". A
// report of the kernel, which has no interface id, shows its vif number: "Iif: vif3".
std::string notificationText(const Routing::Multicast::Notify::CacheReport& report);
// {"event","src","dst","iif"[,"length"]}.
Json notificationJson(const Routing::Multicast::Notify::CacheReport& report);

}  // namespace Sfectl
