// What `explain` says, against what the packet path then does: every row of the table of packet
// cases that is a native packet, several times over, so that limits are met as well.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

#include "SfeModules/AddressText.h"
#include "SfeModules/MfibStates.h"
#include "SfeModules/Testing/PacketFixture.h"

namespace SfeModules {
namespace {

using frames::PacketCase;

struct Step {
  std::string name;
  std::string result;
  std::string detail;
};

std::vector<Step> explained(const Mfib& mfib, const std::string& arg) {
  std::istringstream text(MfibExplain::text(mfib, arg));
  std::string line;
  std::getline(text, line);
  EXPECT_EQ(line, "step\tresult\tdetail");
  std::vector<Step> steps;
  while (std::getline(text, line)) {
    std::istringstream fields(line);
    Step step;
    std::getline(fields, step.name, '\t');
    std::getline(fields, step.result, '\t');
    std::getline(fields, step.detail, '\t');
    steps.push_back(step);
  }
  return steps;
}

std::vector<std::string> details(const std::vector<Step>& steps, const std::string& name) {
  std::vector<std::string> found;
  for (const Step& step : steps) {
    if (step.name == name) {
      found.push_back(step.detail);
    }
  }
  return found;
}

class MfibExplainRows : public PacketFixture, public ::testing::WithParamInterface<frames::Kind> {
 protected:
  using Counts = std::map<std::string, uint64_t>;

  // All counters by the names that `explain` uses.
  Counts counts() {
    Counts all;
    const auto& intfs = MfibTestPeer::intfCounters(*mfib_);
    for (auto it = intfs.begin(); it != intfs.end(); ++it) {
      const std::string name = "interface " + Nynet::IntfId(it.key()).stringValue() + " ";
      const IntfCounterEntry& entry = *it.value();
      all[name + "packets_in"] = entry.pktsIn;
      all[name + "packets_out"] = entry.pktsOut;
      all[name + "bytes_in"] = entry.bytesIn;
      all[name + "bytes_out"] = entry.bytesOut;
      all[name + "packets_queued"] = entry.pktsQueued;
      all[name + "packets_dropped"] = entry.pktsDropped;
    }
    const auto& routes = MfibTestPeer::mrouteCounters(*mfib_);
    for (auto it = routes.begin(); it != routes.end(); ++it) {
      const bool ipv4 = GetParam().isIpv4();
      const std::string name = "route (" + numericAddr(it.key().source.data(), ipv4) + "," +
                               numericAddr(it.key().group.data(), ipv4) + ") ";
      const MrouteCounterEntry& entry = *it.value();
      all[name + "packets_in"] = entry.pktsIn;
      all[name + "bytes_in"] = entry.bytesIn;
      all[name + "wrong_vif"] = entry.wrongVif;
      all[name + "packets_queued"] = entry.pktsQueued;
      all[name + "packets_dropped"] = entry.pktsDropped;
    }
    addEvents(MfibTestPeer::fates(*mfib_), all);
    addEvents(MfibTestPeer::notifications(*mfib_), all);
    return all;
  }

  template <class Event>
  void addEvents(const EventCounts<Event>& events, Counts& all) {
    for (size_t i = 0; i < static_cast<size_t>(Event::kCount); ++i) {
      const auto event = static_cast<Event>(i);
      all[events.name(event)] = bessCounter(harness_.wid(), events.id(event));
    }
  }

  static std::set<std::string> grown(const Counts& before, const Counts& after) {
    std::set<std::string> names;
    for (const auto& [name, value] : after) {
      const auto at = before.find(name);
      if (value != (at == before.end() ? 0 : at->second)) {
        names.insert(name);
      }
    }
    return names;
  }

  // A packet that `explain` is asked about: native, in one piece, from outside.
  static bool isNative(const PacketCase& row) {
    if (row.reinjected || !row.arrival.segments.empty() || row.drop == Fate::kDropCutOff) {
      return false;
    }
    const size_t ip = row.kind.linkBytes();
    const uint8_t protocol = row.input.at(ip + (row.kind.isIpv4() ? 9 : 6));
    const size_t port = (row.kind.isIpv4() ? kIpv4VxlanPortOffset : kIpv6VxlanPortOffset);
    const bool vxlan = protocol == IPPROTO_UDP && row.input.size() >= port + 2 &&
                       (row.input[port] << 8 | row.input[port + 1]) == kVxlanPort;
    return protocol != IPPROTO_PIM && !vxlan;
  }

  static std::string argumentOf(const PacketCase& row) {
    const size_t ip = row.kind.linkBytes();
    const bool v4 = row.kind.isIpv4();
    const uint8_t* header = row.input.data() + ip;
    std::string arg =
        numericAddr(header + (v4 ? 12 : 8), v4) + " " + numericAddr(header + (v4 ? 16 : 24), v4) +
        " " + (row.arrival.hasInIntf ? row.arrival.intf : "None") +
        " ttl=" + std::to_string(header[v4 ? 8 : 7]) + " len=" + std::to_string(row.input.size());
    if (row.arrival.gateSelect) {
      arg += " gate_select=" + std::to_string(*row.arrival.gateSelect);
    }
    return arg;
  }

  // The fate that the packet path counts once for each packet.
  static bool isFateCounter(const std::string& name) {
    return name.starts_with("mfib") && name.find("notify") == std::string::npos &&
           name.find("suppressed") == std::string::npos && !name.ends_with(".copied");
  }

  void checkOnce(const PacketCase& row) {
    const Counts before = counts();
    const size_t alerts = MfibTestPeer::sgAlerts(*mfib_).size();
    const size_t wrong = MfibTestPeer::wrongVifTimes(*mfib_).size();
    const std::vector<Step> steps = explained(*mfib_, argumentOf(row));
    // Being asked has changed nothing, not even an empty entry.
    EXPECT_EQ(counts(), before);
    EXPECT_EQ(MfibTestPeer::sgAlerts(*mfib_).size(), alerts);
    EXPECT_EQ(MfibTestPeer::wrongVifTimes(*mfib_).size(), wrong);

    notifications();
    bess::testing::Output out;
    process(arriving(row.input, row.arrival), false, out);
    const std::set<std::string> actual = grown(before, counts());
    const std::vector<std::string> named = details(steps, "counter");
    EXPECT_EQ(std::set<std::string>(named.begin(), named.end()), actual);
    ASSERT_FALSE(named.empty());
    EXPECT_TRUE(isFateCounter(named[0])) << named[0];
    EXPECT_EQ(details(steps, "fate").size(), 1U);

    const size_t told = std::count_if(steps.begin(), steps.end(), [](const Step& step) {
      return step.name == "notify" && step.result == "ok";
    });
    EXPECT_EQ(notifications().size(), told);
    const bool passes = actual.contains(MfibTestPeer::fates(*mfib_).name(Fate::kPassed));
    const size_t leaves = std::count_if(steps.begin(), steps.end(), [](const Step& step) {
      return step.name == "oif" && step.result == "ok";
    });
    EXPECT_EQ(out.total(), passes ? 1U : leaves);
  }
};

TEST_P(MfibExplainRows, saysWhatThePacketPathThenDoes) {
  constexpr int kTimes = 5;  // more than are held of one route
  size_t checked = 0;
  for (const PacketCase& row : frames::allRows()) {
    if (std::string_view(row.kind.name) != GetParam().name || !isNative(row)) {
      continue;
    }
    SCOPED_TRACE(row.name);
    prepare(row);
    for (int n = 0; n < kTimes && !HasFailure(); ++n) {
      SCOPED_TRACE("time " + std::to_string(n));
      checkOnce(row);
    }
    ++checked;
  }
  EXPECT_GT(checked, 40U);
}

INSTANTIATE_TEST_SUITE_P(Kinds,
                         MfibExplainRows,
                         ::testing::Values(frames::kEthernetV4,
                                           frames::kRawV4,
                                           frames::kEthernetV6,
                                           frames::kRawV6,
                                           frames::kOtherFamily),
                         [](const auto& kind) { return std::string(kind.param.name); });

class MfibExplainText : public MfibFixture {
 protected:
  std::string fate(const std::string& arg) {
    const auto found = details(explained(*mfib_, arg), "fate");
    return found.size() == 1 ? found[0] : "no fate";
  }
  int refusal(const std::string& arg) {
    try {
      MfibExplain::text(*mfib_, arg);
      return 0;
    } catch (const std::system_error& error) {
      return error.code().value();
    }
  }
};

TEST_F(MfibExplainText, tellsAForwardedPacketStepByStep) {
  createInstance();
  enable({"Ethernet0"});
  addRoute({.source = "10.0.0.2",
            .group = "239.1.1.1",
            .iif = "Ethernet0",
            .oifs = {{"Ethernet1", 1}, {"Vlan100", 2}}});
  std::string names;
  for (const Step& step : explained(*mfib_, "10.0.0.2 239.1.1.1 Ethernet0")) {
    names += step.name + ":" + step.result + " ";
  }
  EXPECT_EQ(names,
            "instance:info destination:ok interface:ok route:ok iif:ok ttl:ok oif:ok oif:ok "
            "rewrite:info fate:ok counter:info counter:info counter:info counter:info "
            "counter:info counter:info counter:info counter:info counter:info counter:info ");
  EXPECT_EQ(fate("10.0.0.2 239.1.1.1 Ethernet0"), "forwarded to Ethernet1, Vlan100");
}

TEST_F(MfibExplainText, tellsWhyAPacketIsDropped) {
  createInstance();
  enable({"Ethernet0", "Ethernet2"});
  addRoute({.source = "*", .group = "239.1.1.1", .iif = "Ethernet0", .oifs = {{"Ethernet1", 1}}});
  addRoute({.source = "10.0.0.3", .group = "239.1.1.1", .iif = "Ethernet0", .iifFrr = "Ethernet2"});
  EXPECT_EQ(fate("10.0.0.2 239.1.1.1 Ethernet5"),
            "dropped: its interface is not enabled for multicast");
  EXPECT_EQ(fate("10.0.0.2 224.0.0.5 Ethernet0"), "dropped: link-local group");
  EXPECT_EQ(fate("10.0.0.2 10.0.0.9 Ethernet0"), "passed on unchanged by gate 0");
  EXPECT_EQ(fate("10.0.0.2 239.1.1.1 Ethernet0 ttl=1"), "dropped: TTL too small");
  EXPECT_EQ(fate("10.0.0.2 239.1.1.1 Ethernet0 len=20"), "dropped: a header is not all there");
  EXPECT_EQ(fate("10.0.0.3 239.1.1.1 Ethernet0"), "dropped: the route has no outgoing interface");
  EXPECT_EQ(fate("10.0.0.3 239.1.1.1 Ethernet2"), "dropped: wrong incoming interface");
  const auto iif = details(explained(*mfib_, "10.0.0.3 239.1.1.1 Ethernet2"), "iif");
  ASSERT_EQ(iif.size(), 1U);
  EXPECT_NE(iif[0].find("iif_frr"), std::string::npos);
  const auto route = details(explained(*mfib_, "10.0.0.2 239.1.1.1 Ethernet2"), "route");
  EXPECT_EQ(route.at(0),
            "no (10.0.0.2,239.1.1.1); (*,239.1.1.1) takes packets from Ethernet0 only");
}

TEST_F(MfibExplainText, refusesWordsThatItCannotTake) {
  createInstance();
  for (const char* arg :
       {"", "10.0.0.2 239.1.1.1", "10.0.0.2 239.1.1.1 Ethernet0 x", "2001:db8::1 ff3e::1 Ethernet0",
        "* 239.1.1.1 Ethernet0", "10.0.0.2 239.1.1 Ethernet0", "10.0.0.2 239.1.1.1 eth0",
        "10.0.0.2 239.1.1.1 Ethernet0 ttl=256", "10.0.0.2 239.1.1.1 Ethernet0 len=-1",
        "10.0.0.2 239.1.1.1 Ethernet0 hops=1"}) {
    EXPECT_EQ(refusal(arg), EINVAL) << arg;
  }
}

}  // namespace
}  // namespace SfeModules
