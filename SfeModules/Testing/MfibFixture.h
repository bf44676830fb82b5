// The tests' way of speaking to one multicast module instance: routes, interfaces, packets,
// notifications, counters.
//
//   struct Forwarding : MfibFixture {};
//   TEST_F(Forwarding, ...) {
//     Mfib& mfib = createInstance({.af = 1, .ethernetMode = true});
//     enable({"Ethernet0"});
//     addRoute({.source = "10.0.0.2", .group = "239.1.1.1", .iif = "Ethernet0", .oifs =
//     {{"Ethernet1", 1}}}); auto out = receive(frame, "Ethernet0");
//
// Threads    : the test's own, which acts as worker 0. The clock stands still until the test moves
// it. Isolation  : the test program has a network namespace (when it is root) and a shared-memory
// system name of its own, so
//              tests that run beside each other never meet.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Bess/Testing/ModuleHarness.h"
#include "Routing/Multicast/Notify/CacheReportListener.h"
#include "SfeModules/Mfib.h"

namespace SfeModules {

// Members of an instance, for tests that look at its state.
struct MfibTestPeer {
  static auto& routes(Mfib& mfib) { return *mfib.mfib_; }
  static auto& intfSet(Mfib& mfib) { return *mfib.multicastIntfTable_; }
  static auto& intfCounters(Mfib& mfib) { return *mfib.intfCounterTable_; }
  static auto& mrouteCounters(Mfib& mfib) { return *mfib.mrouteCounterTable_; }
  static auto& sgAlerts(Mfib& mfib) { return *mfib.sgAlertTable_; }
  static auto& wrongVifTimes(Mfib& mfib) { return *mfib.wrongVifTimestampTable_; }
  static auto*& cache(Mfib& mfib) { return mfib.noCacheMgr_; }
  static auto& sharedRoutes(Mfib& mfib) { return mfib.pellMrouteCounterTable_; }
  static auto& sharedIntfs(Mfib& mfib) { return mfib.pellIntfCounterTable_; }
  static auto& socket(Mfib& mfib) { return mfib.notifySocket_; }
  static uint32_t mrouteCount(const Mfib& mfib) { return mfib.mrouteCount_; }
  static auto& runTaskCount(Mfib& mfib) { return mfib.runTaskCount_; }
  static uint32_t suppressionTimer(const Mfib& mfib) { return mfib.noCacheSuppressionTimer_; }
  static uint64_t bridgeMac(const Mfib& mfib) { return mfib.bridgeMac_; }
  static uint32_t addrLen(const Mfib& mfib) { return mfib.addrLen_; }
  static const PacketFates& fates(const Mfib& mfib) { return mfib.fates_; }
  static const NotificationCounts& notifications(const Mfib& mfib) { return mfib.notifications_; }
  static std::string namespaceName(const Mfib& mfib) { return mfib.namespaceName_.str(); }
};

// Holds the module's clock still at a chosen time.
class ManualClock {
 public:
  ManualClock() : previous_(Clock::sourceIs(&ManualClock::read)) {}
  ~ManualClock() { Clock::sourceIs(previous_); }
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  static TimePoint now() { return read(); }
  static void advance(std::chrono::nanoseconds by) { nanos_ += by.count(); }
  static void set(TimePoint time) { nanos_ = time.time_since_epoch().count(); }

 private:
  static TimePoint read() { return TimePoint(std::chrono::nanoseconds(nanos_.load())); }
  inline static std::atomic<int64_t> nanos_{1'700'000'000'000'000'000};
  const Clock::Source previous_;
};

class MfibFixture : public ::testing::Test {
 public:
  using Bytes = std::vector<uint8_t>;
  using Report = Routing::Multicast::Notify::CacheReportOwned;

  struct Settings {
    uint32_t af = kAfIpv4;
    bool ethernetMode = true;
    std::string vrf = "default";
    uint32_t vrfId = 7;
  };
  struct Oif {
    std::string intf;
    uint32_t gate = 1;
  };
  struct Route {
    std::string source;  // "*" for (*,G)
    std::string group;
    std::string iif;
    std::vector<Oif> oifs = {};
    bool iifRegister = false;
    bool oifRegister = false;
    std::string iifFrr = {};
    std::string notify = {};
    std::string fastdrop = {};
    bool toCpu = false;
  };
  // What is on the packet besides its bytes when it arrives.
  struct Arrival {
    std::string intf;
    std::optional<uint32_t> qosMark = {};
    std::optional<uint8_t> gateSelect = {};
    std::optional<uint8_t> carriedByte = {};
    std::optional<uint32_t> carriedWord1 = {};
    std::optional<uint32_t> carriedWord2 = {};
    std::vector<size_t> segments = {};  // lengths of all segments but the last; empty: one segment
    bool hasInIntf = true;              // else the interface's presence bit is clear
  };

  static uint64_t id(const std::string& intf);  // "" is 0

 protected:
  static constexpr gate_idx_t kCapturedGates = 5;  // 0 .. 4

  MfibFixture();
  ~MfibFixture() override;

  // The instance under test; its gates 0 .. 4 are captured. A second call makes a second instance.
  Mfib& createInstance(const Settings& settings);
  Mfib& createInstance() { return createInstance(Settings{}); }
  void destroyInstance();

  void enable(const std::vector<std::string>& intfs);
  void disable(const std::vector<std::string>& intfs);
  CommandResponse addRoute(const Route& route);
  CommandResponse deleteRoute(const std::string& source, const std::string& group);
  void setBridgeMac(const MacAddr& mac);

  // A packet with these bytes as it arrives from an interface.
  bess::PacketPtr arriving(const Bytes& bytes, const Arrival& arrival);
  // Offers one packet (several, as one batch) and returns what came out by gate.
  bess::testing::Output receive(const Bytes& bytes, const Arrival& arrival);
  bess::testing::Output receive(const Bytes& bytes, const std::string& intf) {
    return receive(bytes, Arrival{.intf = intf});
  }
  bess::testing::Output receiveBatch(std::vector<bess::PacketPtr> packets);

  // What ProcessPacket answers for one packet; what it sent out is in `out`.
  bool process(const Bytes& bytes, const Arrival& arrival, bess::testing::Output& out);
  bool process(bess::PacketPtr packet, bool reinjected, bess::testing::Output& out);

  // Sets the events' counts back to zero.
  void clearEvents();

  // Everything sent since the last call.
  std::vector<Report> notifications();

  // Local counter entries; an absent entry reads as all zero.
  IntfCounterEntry* intfCounters(const std::string& intf);
  MrouteCounterEntry* routeCounters(const std::string& source, const std::string& group);
  uint64_t event(uint32_t id) const;  // ids 1..6 in the order of setCounterIds

  MfibKey key(const std::string& source, const std::string& group) const;
  static Bytes bytesOf(const bess::PacketPtr& packet);
  static const ForwardingMetadata& metadata(const bess::PacketPtr& packet) {
    return metadataOf(packet.get());
  }
  size_t packetsInUse() const;

  sfe::pb::MfibRouteArg routeArg(const Route& route) const;

  ManualClock clock_;
  bess::testing::ModuleHarness harness_;
  Mfib* mfib_ = nullptr;
  std::string instanceName_;
  std::unique_ptr<Routing::Multicast::Notify::CacheReportListener> listener_;
};

}  // namespace SfeModules
