#include "sfectl/Notification.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "sfectl/Arguments.h"

namespace Sfectl {
namespace {

using Nynet::AddressFamily;
using Routing::Multicast::Notify::CacheReport;
namespace Notify = Routing::Multicast::Notify;

Nynet::IpGenAddr address(const char* text) {
  const Address parsed = parseAddress(text, "address");
  return Nynet::IpGenAddr(parsed.isIpv4() ? AddressFamily::kIpv4 : AddressFamily::kIpv6,
                          reinterpret_cast<const uint8_t*>(parsed.bytes.data()));
}

CacheReport report(uint8_t kind, const char* source, const char* group) {
  CacheReport result;
  result.kind = kind;
  result.source = address(source);
  result.group = address(group);
  result.intfId = parseIntf("Ethernet0", "test");
  return result;
}

TEST(Notification, isOneLine) {
  EXPECT_EQ(notificationText(report(Notify::kKindNoCache, "10.0.0.2", "239.1.1.1")),
            "nocache (10.0.0.2,239.1.1.1)             Iif: Ethernet0");
  EXPECT_EQ(notificationText(report(Notify::kKindWrongVif, "2001:db8::2", "ff15::1")),
            "wrongvif (2001:db8::2,ff15::1)            Iif: Ethernet0");
}

TEST(Notification, tellsTheLengthOfAWholePacket) {
  const std::vector<std::byte> packet(128);
  CacheReport whole = report(Notify::kKindWholePkt, "10.0.0.2", "239.1.1.1");
  whole.pkt = packet;
  EXPECT_EQ(notificationText(whole),
            "wholepkt (10.0.0.2,239.1.1.1)             Iif: Ethernet0  Length: 128");
  EXPECT_EQ(dumpJson(notificationJson(whole)),
            R"({"event":"wholepkt","src":"10.0.0.2","dst":"239.1.1.1","iif":"Ethernet0",)"
            R"("length":128})");
}

TEST(Notification, tellsTheVifOfAReportWithoutInterfaceId) {
  CacheReport kernel = report(Notify::kKindNoCache, "10.0.0.2", "239.1.1.1");
  kernel.intfId.reset();
  kernel.vifId = 3;
  EXPECT_EQ(dumpJson(notificationJson(kernel)),
            R"({"event":"nocache","src":"10.0.0.2","dst":"239.1.1.1","iif":"vif3"})");
}

}  // namespace
}  // namespace Sfectl
