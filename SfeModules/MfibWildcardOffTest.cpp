// The packet path with the toggle "MfaWcFwd" off. It is asked for once per process, so this is a
// program of its own.

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Base/NyToggles/NyToggles.h"
#include "SfeModules/Testing/PacketFixture.h"

namespace SfeModules {

namespace {

using frames::Flow;
using frames::PacketCase;
using frames::PacketFate;

// The directory of toggles, gone when the program ends.
class ToggleOff : public ::testing::Environment {
 public:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "toggles.XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
    std::ofstream(directory_ / "Mroute.json") << R"({"MfaWcFwd": false})";
    setToggleDirectory(directory_.string());
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

 private:
  std::filesystem::path directory_;
};

const auto* const kToggleOff = ::testing::AddGlobalTestEnvironment(new ToggleOff);

class WildcardOff : public PacketFixture, public ::testing::WithParamInterface<frames::Kind> {};

TEST_P(WildcardOff, takesAWildcardRouteForNone) {
  const Flow flow(GetParam());
  PacketCase row = flow.row("wildcard", flow.ip());
  row.routes[0].source = "*";
  prepare(row);
  EXPECT_EQ(offerBalanced(arriving(row.input, row.arrival), false), PacketFate::kHeld);
  const std::vector<Report> reports = notifications();
  ASSERT_EQ(reports.size(), 1U);
  EXPECT_EQ(reports[0].kind, frames::kNoCache);
  EXPECT_EQ(reports[0].source.stringValue(), flow.source);
  EXPECT_EQ(routeCounters(flow.source, flow.group)->pktsIn, 0U);
}

TEST_P(WildcardOff, stillTakesTheSourceRoute) {
  const Flow flow(GetParam());
  const PacketCase row = flow.forwards("source", flow.ip());
  prepare(row);
  bess::testing::Output out;
  EXPECT_TRUE(process(row.input, row.arrival, out));
  ASSERT_EQ(out.count(1), 1U);
  EXPECT_EQ(bytesOf(out[1][0]), row.sent[0].bytes);
  EXPECT_TRUE(notifications().empty());
}

// Expiring packets are told of one by one, unless no packet is ever held.
TEST_P(WildcardOff, limitsAlertsOfTtlOneOnlyWithoutHolding) {
  const Flow flow(GetParam());
  frames::Ip last = flow.ip();
  last.ttl = 1;
  PacketCase row = flow.row("last", last);
  row.routes.clear();
  for (const uint32_t heldPerRoute : {3U, 0U}) {
    row.heldPerRoute = heldPerRoute;
    prepare(row);
    const uint64_t before = event(4);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(offerBalanced(arriving(row.input, row.arrival), false), PacketFate::kDropped);
    }
    const size_t expected = heldPerRoute == 0 ? 1 : 3;
    EXPECT_EQ(notifications().size(), expected);
    EXPECT_EQ(event(4) - before, expected);
    destroyInstance();
  }
}

INSTANTIATE_TEST_SUITE_P(
    Kinds,
    WildcardOff,
    ::testing::Values(frames::kEthernetV4, frames::kRawV4, frames::kEthernetV6, frames::kRawV6),
    [](const auto& kind) { return std::string(kind.param.name); });

}  // namespace

}  // namespace SfeModules
