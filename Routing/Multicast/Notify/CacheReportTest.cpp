#include "Routing/Multicast/Notify/CacheReport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Routing::Multicast::Notify {
namespace {

using Message = std::vector<std::byte>;
using Nynet::AddressFamily;

Nynet::IpGenAddr address(AddressFamily af, uint8_t first, uint8_t last) {
  std::array<uint8_t, 16> bytes{};
  bytes[0] = first;
  bytes[Nynet::addressLength(af) - 1] = last;
  return {af, bytes.data()};
}

CacheReport report(AddressFamily af, uint8_t kind, std::span<const std::byte> pkt = {}) {
  CacheReport made;
  made.af = af;
  made.kind = kind;
  made.vifId = 0x00302064;
  made.source = address(af, 10, 2);
  made.group = address(af, 0xef, 1);
  made.pkt = pkt;
  made.intfId = 0x0100000000302064;
  if (af == AddressFamily::kIpv4) {
    made.table = kDefaultTable;
  }
  return made;
}

// The whole message, as the socket puts it together.
Message encoded(const CacheReport& from) {
  alignas(8) std::array<std::byte, kMaxHeadBytes> head;
  const size_t headBytes = encodeHead(head, from);
  Message message(head.begin(), head.begin() + static_cast<std::ptrdiff_t>(headBytes));
  if (carriesPkt(from.kind)) {
    const size_t carried = carriedPktBytes(from.pkt.size());
    message.insert(message.end(), from.pkt.begin(),
                   from.pkt.begin() + static_cast<std::ptrdiff_t>(carried));
    message.resize(message.size() + pktPadding(carried));
  }
  return message;
}

Message bytes(std::initializer_list<int> values) {
  Message out;
  for (const int value : values) {
    out.push_back(static_cast<std::byte>(value));
  }
  return out;
}

void expectSame(const CacheReport& a, const CacheReport& b) {
  EXPECT_EQ(a.af, b.af);
  EXPECT_EQ(a.kind, b.kind);
  EXPECT_EQ(a.vifId, b.vifId);
  EXPECT_EQ(a.source, b.source);
  EXPECT_EQ(a.group, b.group);
  EXPECT_EQ(a.intfId, b.intfId);
  EXPECT_EQ(a.table, b.table);
  EXPECT_TRUE(std::equal(a.pkt.begin(), a.pkt.end(), b.pkt.begin(), b.pkt.end()));
}

TEST(CacheReport, laysAnIpv4NoCacheOutByteByByte) {
  const Message expected = bytes({
      72,  0, 0,  0, 96,   0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0,  // nlmsghdr
      128, 0, 0,  0,                                               // rtgenmsg
      5,   0, 1,  0, 1,    0,    0,    0,                          // MSGTYPE
      8,   0, 2,  0, 0x64, 0x20, 0x30, 0,                          // VIF_ID
      8,   0, 3,  0, 10,   0,    0,    2,                          // SRC_ADDR
      8,   0, 4,  0, 0xef, 0,    0,    1,                          // DST_ADDR
      8,   0, 6,  0, 253,  0,    0,    0,                          // TABLE
      12,  0, 64, 0, 0x64, 0x20, 0x30, 0, 0, 0, 0, 1,              // the interface id
  });
  EXPECT_EQ(encoded(report(AddressFamily::kIpv4, kKindNoCache)), expected);
}

TEST(CacheReport, laysAnIpv6WholePktOutByteByByte) {
  const Message pkt = bytes({0x60, 1, 2, 3, 4});
  const Message expected = bytes({
      100, 0, 0,  0, 96,   0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0,              // nlmsghdr
      129, 0, 0,  0,                                                           // rtgenmsg
      5,   0, 1,  0, 3,    0,    0,    0,                                      // MSGTYPE
      8,   0, 2,  0, 0x64, 0x20, 0x30, 0,                                      // MIF_ID
      20,  0, 3,  0, 10,   0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2,  // SRC_ADDR
      20,  0, 4,  0, 0xef, 0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,  // DST_ADDR
      12,  0, 64, 0, 0x64, 0x20, 0x30, 0, 0, 0, 0, 1,                          // the interface id
      9,   0, 5,  0, 0x60, 1,    2,    3, 4, 0, 0, 0,  // PKT and its padding
  });
  EXPECT_EQ(encoded(report(AddressFamily::kIpv6, kKindWholePkt, pkt)), expected);
}

TEST(CacheReport, readsBackWhatItWrote) {
  for (const AddressFamily af : {AddressFamily::kIpv4, AddressFamily::kIpv6}) {
    for (const uint8_t kind : {kKindNoCache, kKindWrongVif, kKindWholePkt}) {
      for (const size_t size : {0U, 1U, 2U, 3U, 4U, 1500U, 65530U, 65531U}) {
        SCOPED_TRACE(testing::Message() << int{kind} << " with " << size << " bytes");
        const Message pkt(carriesPkt(kind) ? size : 0, std::byte{0x5a});
        const CacheReport sent = report(af, kind, pkt);
        const Message message = encoded(sent);
        EXPECT_EQ(message.size() % 4, 0U);
        EXPECT_LE(message.size(), kMaxMessageBytes);
        const auto read = decode(message);
        ASSERT_TRUE(read);
        expectSame(*read, sent);
      }
    }
  }
}

TEST(CacheReport, cutsAPacketThatNoAttributeCanHold) {
  for (const size_t size : {65532U, 65575U, 1000000U}) {
    const Message pkt(size, std::byte{0x5a});
    const auto read = decode(encoded(report(AddressFamily::kIpv6, kKindWholePkt, pkt)));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->pkt.size(), 65531U);
  }
}

TEST(CacheReport, refusesToWriteAddressesOfAnotherFamily) {
  alignas(8) std::array<std::byte, kMaxHeadBytes> head;
  CacheReport mixed = report(AddressFamily::kIpv4, kKindNoCache);
  mixed.source = address(AddressFamily::kIpv6, 1, 1);
  EXPECT_EQ(encodeHead(head, mixed), 0U);
  mixed = report(AddressFamily::kIpv6, kKindNoCache);
  mixed.group = Nynet::IpGenAddr();
  EXPECT_EQ(encodeHead(head, mixed), 0U);
  EXPECT_EQ(encodeHead(head, CacheReport()), 0U);
}

// --- messages of others

// Builds a message out of pieces that need not fit together.
class Forge {
 public:
  explicit Forge(uint8_t family = 128) {
    message_ = bytes({0, 0, 0, 0, 96, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, family, 0, 0, 0});
  }
  // `length` as it stands in the attribute's header; -1: the true one.
  Forge& attribute(uint16_t type, const Message& value, int length = -1) {
    const auto told = static_cast<uint16_t>(length < 0 ? 4 + value.size() : length);
    append(&told, sizeof(told));
    append(&type, sizeof(type));
    append(value.data(), value.size());
    message_.resize((message_.size() + 3) / 4 * 4);
    return *this;
  }
  Forge& raw(const Message& more) {
    append(more.data(), more.size());
    return *this;
  }
  Forge& needed() { return attribute(1, bytes({1})).attribute(2, bytes({7, 0, 0, 0})).addresses(); }
  Forge& addresses() {
    return attribute(3, bytes({10, 0, 0, 2})).attribute(4, bytes({239, 1, 1, 1}));
  }
  Forge& type(uint8_t type) {
    message_[4] = std::byte{type};
    return *this;
  }
  // `length` as it stands in the header; -1: the true one.
  Message done(int64_t length = -1) {
    const auto told = static_cast<uint32_t>(length < 0 ? message_.size() : length);
    std::memcpy(message_.data(), &told, sizeof(told));
    return message_;
  }

 private:
  void append(const void* from, size_t size) {
    const auto* first = static_cast<const std::byte*>(from);
    message_.insert(message_.end(), first, first + size);
  }

  Message message_;
};

struct Foreign {
  const char* what;
  Message message;
};

TEST(CacheReport, refusesMalformedMessages) {
  const Message four(4), sixteen(16);
  const std::vector<Foreign> rows = {
      {"nothing", {}},
      {"a header cut off", bytes({20, 0, 0, 0, 96, 0})},
      {"a header alone", Message(bytes({16, 0, 0, 0, 96, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}))},
      {"no attributes", Forge().done()},
      {"length zero", Forge().needed().done(0)},
      {"a length shorter than the headers", Forge().needed().done(19)},
      {"a length one beyond the datagram", Forge().needed().done(53)},
      {"the greatest length", Forge().needed().done(0xffffffff)},
      {"another type", Forge().needed().type(24).done()},
      {"an error message", Forge().needed().type(2).done()},
      {"an ordinary family", Forge(2).needed().done()},
      {"IPv4 addresses in an IPv6 message", Forge(129).needed().done()},
      {"no MSGTYPE", Forge().attribute(2, four).addresses().done()},
      {"no VIF_ID", Forge().attribute(1, bytes({1})).addresses().done()},
      {"no SRC_ADDR",
       Forge().attribute(1, bytes({1})).attribute(2, four).attribute(4, four).done()},
      {"no DST_ADDR",
       Forge().attribute(1, bytes({1})).attribute(2, four).attribute(3, four).done()},
      {"an empty MSGTYPE", Forge().needed().attribute(1, {}).done()},
      {"a MSGTYPE of four bytes", Forge().needed().attribute(1, four).done()},
      {"a VIF_ID of three bytes", Forge().needed().attribute(2, bytes({1, 2, 3})).done()},
      {"a VIF_ID of eight bytes", Forge().needed().attribute(2, Message(8)).done()},
      {"a SRC_ADDR of sixteen bytes", Forge().needed().attribute(3, sixteen).done()},
      {"a DST_ADDR of no bytes", Forge().needed().attribute(4, {}).done()},
      {"a DST_ADDR of five bytes", Forge().needed().attribute(4, Message(5)).done()},
      {"a TABLE of one byte", Forge().needed().attribute(6, bytes({253})).done()},
      {"an interface id of four bytes", Forge().needed().attribute(64, four).done()},
      {"an interface id of nine bytes", Forge().needed().attribute(64, Message(9)).done()},
      {"an attribute of length zero", Forge().needed().attribute(9, four, 0).done()},
      {"an attribute shorter than its header", Forge().needed().attribute(9, four, 3).done()},
      {"an attribute one beyond the end", Forge().needed().attribute(5, four, 9).done()},
      {"an attribute of the greatest length", Forge().needed().attribute(5, four, 65535).done()},
      {"half an attribute header at the end", Forge().needed().raw(bytes({4, 0})).done()},
      {"a length that cuts the last attribute", Forge().needed().done(51)},
  };
  for (const Foreign& row : rows) {
    EXPECT_EQ(decode(row.message), std::nullopt) << row.what;
  }
}

TEST(CacheReport, acceptsWhatTheKernelSends) {
  // A NOCACHE of the kernel: its own order, no interface id, and a PKT that has no meaning.
  const auto noCache = decode(Forge()
                                  .needed()
                                  .attribute(6, bytes({253, 0, 0, 0}))
                                  .attribute(5, Message(8, std::byte{1}))
                                  .done());
  ASSERT_TRUE(noCache);
  EXPECT_EQ(noCache->kind, kKindNoCache);
  EXPECT_EQ(noCache->vifId, 7U);
  EXPECT_EQ(noCache->source.stringValue(), "10.0.0.2");
  EXPECT_EQ(noCache->group.stringValue(), "239.1.1.1");
  EXPECT_EQ(noCache->table, 253U);
  EXPECT_EQ(noCache->intfId, std::nullopt);
  EXPECT_TRUE(noCache->pkt.empty());

  const auto wrVifWhole =
      decode(Forge().needed().attribute(1, bytes({4})).attribute(5, Message(28)).done());
  ASSERT_TRUE(wrVifWhole);
  EXPECT_EQ(wrVifWhole->kind, kKindWrVifWhole);
  EXPECT_EQ(wrVifWhole->pkt.size(), 28U);
}

TEST(CacheReport, passesOverWhatItDoesNotKnow) {
  const Message six(6);
  EXPECT_TRUE(
      decode(Forge().attribute(0, {}).attribute(7, six).needed().attribute(99, six).done()));
  // The flag bits of a type are not part of it.
  EXPECT_TRUE(decode(
      Forge().attribute(0x8000 | 1, bytes({1})).attribute(2, Message(4)).addresses().done()));
  // TABLE means nothing in IPv6.
  const Message six16(16);
  EXPECT_TRUE(decode(Forge(129)
                         .attribute(1, bytes({1}))
                         .attribute(2, Message(4))
                         .attribute(3, six16)
                         .attribute(4, six16)
                         .attribute(6, bytes({1}))
                         .done()));
  // What follows the message in the datagram is not looked at, nor is a missing last padding.
  Message trailed = Forge().needed().done();
  trailed.push_back(std::byte{0xff});
  EXPECT_TRUE(decode(trailed));
  EXPECT_TRUE(decode(Forge().needed().attribute(1, bytes({2})).done(52 + 5)));
}

TEST(CacheReport, takesTheLastOfTwo) {
  const auto twice = decode(Forge().needed().attribute(2, bytes({9, 0, 0, 0})).done());
  ASSERT_TRUE(twice);
  EXPECT_EQ(twice->vifId, 9U);
}

// On a piece of heap of just that size, so that a sanitizer sees the first byte read beyond.
std::optional<CacheReport> decodeExactly(const std::byte* from, size_t size, size_t misalignment) {
  const auto exact = std::make_unique<std::byte[]>(size + misalignment);
  std::copy_n(from, size, exact.get() + misalignment);
  auto read = decode(std::span(exact.get() + misalignment, size));
  if (read) {
    EXPECT_LE(read->pkt.size(), size);
    read->pkt = {};
  }
  return read;
}

TEST(CacheReport, survivesEveryCutEveryAlignmentAndEveryChangedByte) {
  const Message pkt(9, std::byte{0x45});
  for (const AddressFamily af : {AddressFamily::kIpv4, AddressFamily::kIpv6}) {
    const Message whole = encoded(report(af, kKindWholePkt, pkt));
    for (size_t size = 0; size < whole.size(); ++size) {
      EXPECT_FALSE(decodeExactly(whole.data(), size, 0)) << size;
      // The same cut, admitted in the header.
      Message shorter(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
      const auto told = static_cast<uint32_t>(size);
      if (size >= sizeof(told)) {
        std::memcpy(shorter.data(), &told, sizeof(told));
      }
      decodeExactly(shorter.data(), size, 0);
    }
    for (size_t misalignment = 0; misalignment < 8; ++misalignment) {
      EXPECT_TRUE(decodeExactly(whole.data(), whole.size(), misalignment));
    }
    for (size_t at = 0; at < whole.size(); ++at) {
      for (int value = 0; value < 256; ++value) {
        Message changed = whole;
        changed[at] = static_cast<std::byte>(value);
        const auto read = decodeExactly(changed.data(), changed.size(), 0);
        if (read) {
          EXPECT_EQ(read->source.af(), read->af);
          EXPECT_EQ(read->group.af(), read->af);
        }
      }
    }
  }
}

}  // namespace
}  // namespace Routing::Multicast::Notify
