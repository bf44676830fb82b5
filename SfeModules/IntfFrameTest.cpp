#include "SfeModules/IntfFrame.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "SfeModules/IntfTesting.h"

namespace SfeModules {
namespace {

using testing::ethernet;
using testing::Ipv4;
using testing::Ipv6;
using testing::kGroupMac;
using testing::segmented;
using testing::u16;

const std::string kUdp(16, 'u');
const std::string kUnicast4("\x0a\x00\x00\x01", 4);
const std::string kUnicast6 = std::string("\x20\x01", 2) + std::string(13, '\0') + "\x01";
const std::string kLinkScope6 = std::string("\xff\x02", 2) + std::string(13, '\0') + "\x05";
const std::string kRegister = std::string("\x21\0\0\0\0\0\0\0", 8) + kUdp;
const std::string kNullRegister = std::string("\x21\0\0\0\x40\0\0\0", 8) + kUdp;
const std::string kHello("\x20\0\0\0", 4);

std::string v4(const Ipv4& ip, const std::string& payload = kUdp) {
  return ethernet(kGroupMac, 0x0800, ip.with(payload));
}

std::string v6(const Ipv6& ip, const std::string& payload = kUdp) {
  return ethernet(kGroupMac, 0x86dd, ip.with(payload));
}

// An extension header of 8 bytes.
std::string extension(int next, char second = 0, unsigned third = 0) {
  return std::string{static_cast<char>(next), second} + u16(third) + std::string(4, '\0');
}

struct Case {
  const char* name;
  std::string frame;
  FrameKind kind;
};

std::vector<Case> cases() {
  constexpr FrameKind kData4 = FrameKind::kIpv4Data;
  constexpr FrameKind kData6 = FrameKind::kIpv6Data;
  constexpr FrameKind kHost = FrameKind::kHost;
  constexpr FrameKind kTruncated = FrameKind::kTruncated;
  const std::string options("\x94\x04\0\0", 4);
  return {
      {"Ipv4Group", v4({}), kData4},
      {"Ipv4GroupWithOptions", v4({.options = options}), kData4},
      {"Ipv4LaterFragment", v4({.fragment = 0x0010}), kData4},
      {"Ipv4EdgeOfLocalBlock", v4({.group = std::string("\xe0\0\1\0", 4)}), kData4},
      {"Ipv4LocalBlock", v4({.group = std::string("\xe0\0\0\5", 4)}), kHost},
      {"Ipv4Unicast", v4({.group = kUnicast4}), kHost},
      {"Ipv4Broadcast", v4({.group = std::string(4, '\xff')}), kHost},
      {"Igmp", v4({.protocol = 2}), kHost},
      {"IgmpWithRouterAlert", v4({.protocol = 2, .options = options}), kHost},
      {"IgmpUnicast", v4({.group = kUnicast4, .protocol = 2}), kHost},
      {"PimHello4", v4({.protocol = 103}, kHello), kHost},
      {"Register4", v4({.group = kUnicast4, .protocol = 103}, kRegister), kData4},
      {"NullRegister4", v4({.group = kUnicast4, .protocol = 103}, kNullRegister), kHost},
      {"RegisterInFragments",
       v4({.group = kUnicast4, .protocol = 103, .fragment = 0x2000}, kRegister), kHost},
      {"RegisterBehindOptions",
       v4({.group = kUnicast4, .protocol = 103, .options = options}, kRegister), kHost},
      {"RegisterCutOff", v4({.protocol = 103}, kRegister.substr(0, 7)), kTruncated},
      {"PimCutOff", v4({.protocol = 103}, kHello.substr(0, 3)), kTruncated},
      {"Ipv4CutOff", v4({}).substr(0, 14 + 19), kTruncated},
      {"Ipv4OptionsCutOff", v4({.options = options}).substr(0, 14 + 23), kTruncated},
      {"Ipv4OfVersion5", ethernet(kGroupMac, 0x0800, "\x55" + Ipv4{}.with(kUdp).substr(1)), kHost},
      {"Ipv4ShortHeader", ethernet(kGroupMac, 0x0800, "\x44" + Ipv4{}.with(kUdp).substr(1)), kHost},
      {"Arp", ethernet(testing::kBroadcastMac, 0x0806, kUdp), kHost},
      {"Llc", ethernet(kGroupMac, 38, kUdp), kHost},
      {"Ipv6Group", v6({}), kData6},
      {"Ipv6LinkScope", v6({.group = kLinkScope6}), kHost},
      {"Ipv6Unicast", v6({.group = kUnicast6}), kHost},
      {"Ipv6CutOff", v6({}).substr(0, 14 + 39), kTruncated},
      {"Ipv6OfVersion4", ethernet(kGroupMac, 0x86dd, "\x40" + Ipv6{}.with(kUdp).substr(1)), kHost},
      {"Mld1Report", v6({.next = 58}, "\x83" + kUdp), kHost},
      {"Mld2Report", v6({.next = 58}, "\x8f" + kUdp), kHost},
      {"MldBehindHopByHop", v6({.next = 0}, extension(58) + "\x82" + kUdp), kHost},
      {"MldBehindTwo", v6({.next = 0}, extension(60) + extension(58) + "\x84" + kUdp), kHost},
      {"MldBehindLongHeader",
       v6({.next = 0}, extension(58, 1) + std::string(8, '\0') + "\x84" + kUdp), kHost},
      {"EchoToGroup", v6({.next = 58}, "\x80" + kUdp), kData6},
      {"UdpBehindHopByHop", v6({.next = 0}, extension(17) + kUdp), kData6},
      {"MldInFirstFragment", v6({.next = 44}, extension(58, 0, 1) + "\x83" + kUdp), kHost},
      {"LaterFragment", v6({.next = 44}, extension(58, 0, 8) + "\x83" + kUdp), kData6},
      {"ExtensionCutOff", v6({.next = 0}, extension(58).substr(0, 7)), kTruncated},
      {"ExtensionBeyondPacket", v6({.next = 0}, extension(58, '\xff') + kUdp), kTruncated},
      {"Icmp6CutOff", v6({.next = 58}, ""), kTruncated},
      {"NoNextHeader", v6({.next = 59}, ""), kData6},
      {"Register6", v6({.group = kUnicast6, .next = 103}, kRegister), kData6},
      {"NullRegister6", v6({.group = kUnicast6, .next = 103}, kNullRegister), kHost},
      {"PimHello6", v6({.group = kLinkScope6, .next = 103}, kHello), kHost},
      {"PimBehindExtension", v6({.next = 0}, extension(103) + kRegister), kHost},
      {"EndlessExtensions",
       v6({.next = 0},
          [] {
            std::string all;
            for (int i = 0; i < 40; ++i) {
              all += extension(60);
            }
            return all;
          }()),
       kHost},
  };
}

class IntfFrame : public ::testing::TestWithParam<Case> {
 protected:
  bess::testing::ModuleHarness harness_;  // makes the packet pool
};

TEST_P(IntfFrame, isClassifiedHoweverItIsSegmented) {
  for (size_t size : {2000, 15, 7, 1}) {
    bess::PacketPtr pkt = segmented(GetParam().frame, size);
    LinkHeader link = parseLink(pkt->mbuf());
    ASSERT_EQ(link.result, LinkHeader::Result::kGood);
    EXPECT_EQ(classify(pkt->mbuf(), link), GetParam().kind) << "segments of " << size;
  }
}

INSTANTIATE_TEST_SUITE_P(Each, IntfFrame, ::testing::ValuesIn(cases()), [](const auto& test) {
  return test.param.name;
});

// Whatever is cut off, the answer is one of the four and no byte beyond the packet is read.
TEST_P(IntfFrame, isSafeAtEveryLength) {
  for (size_t length = 1; length < GetParam().frame.size(); ++length) {
    bess::PacketPtr pkt = segmented(GetParam().frame.substr(0, length), 2000);
    LinkHeader link = parseLink(pkt->mbuf());
    EXPECT_EQ(link.result == LinkHeader::Result::kGood, length >= 14);
    if (link.result == LinkHeader::Result::kGood) {
      classify(pkt->mbuf(), link);
    }
  }
}

}  // namespace
}  // namespace SfeModules
