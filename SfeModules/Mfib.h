// The multicast forwarding module: one VRF, one address family.
//
// Keeps the routes, replicates each packet to the outgoing interfaces of its route, holds the first
// packets of a new flow, tells the control plane what it cannot forward and counts everything.
//
// Threads    | operation                                   | control | worker | publisher | reader
// |
//            | Init, DeInit, every command                 |   yes   |   -    |     -     |   - |
//            | ProcessBatch, RunTask and all below them    |    -    |  yes   |     -     |   - |
//            | updatePellIntfCounters, ...MrouteCounters   |    -    |   -    |    yes    |   - |
//            | getMroutes (MrouteDump.h)                   |    -    |   -    |     -     |  yes |
// RCU        : every thread above is a registered reader and online while it is in here. Entries
// that a worker finds stay
//              valid until its next quiescent state, so the packet path takes no references.
// Errors     : commands answer with CommandFailure; the packet path never throws: its failures are
// counted or drops. Cost       : a packet whose route exists costs no lock, no system call, and no
// allocation but its copies, slab nodes and
//              a counter entry's first use after a publication.
// Invariants :
//   (1) an entry of mfib_ is never changed, but for its memos: route commands replace it.
//   (2) a packet is passed on, held (the cache has a copy), or dropped and counted; never two of
//   these.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Base/Orp/Ptr.h"
#include "Base/Orp/String.h"
#include "Bess/GenericCommand.h"
#include "Bess/Module.h"
#include "Nynet/IntfId.h"
#include "Routing/Multicast/Notify/Messages.h"
#include "Routing/Multicast/Notify/MrtNotifySocket.h"
#include "Sfe/Counters/Counters.h"
#include "Sfe/Multicast/IntfCounterTable.h"
#include "Sfe/Multicast/MrouteCounterTable.h"
#include "SfeModules/ForwardRules.h"
#include "SfeModules/ForwardingMetadata.h"
#include "SfeModules/ForwardingPass.h"
#include "SfeModules/MfibTypes.h"
#include "SfeModules/MonotoneTotals.h"
#include "SfeModules/NoCachePacketManager.h"
#include "SfeModules/NyUrcuHt.h"
#include "SfeModules/PacketFates.h"
#include "SfeModules/PacketHeaders.h"
#include "SfeModules/WayNumbers.h"
#include "protocol/sfe.pb.h"

namespace SfeModules {

inline constexpr size_t kMaxNamespaceBytes = 150;

class Mfib : public Module {
 public:
  // Registration.
  static const Commands cmds;
  static Module* create();  // the factory: DPDK memory, zero-filled
  static void operator delete(void* object) noexcept;

  Mfib();
  ~Mfib() override;

  // Initialisation and teardown.
  CommandResponse Init(const sfe::pb::MfibArg& arg);
  void DeInit() override;

  // Packet path and tasks.
  TaskResult RunTask(Context* ctx, bess::PacketBatch* batch, void* arg) override;
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;

  // Route commands.
  CommandResponse addMroute(const sfe::pb::MfibRouteArg& arg);
  CommandResponse deleteMroute(const sfe::pb::MfibRouteArg& arg);

  // Runs one of the two with its argument unpacked into memory that is kept: they come by the
  // hundred thousand. An argument of another type is an empty message.
  template <CommandResponse (Mfib::*kCommand)(const sfe::pb::MfibRouteArg&)>
  static CommandResponse runRouteCommand(Module* module, const google::protobuf::Any& any) {
    auto* mfib = static_cast<Mfib*>(module);
    mfib->routeArg_.Clear();
    static_cast<void>(any.UnpackTo(&mfib->routeArg_));
    return (mfib->*kCommand)(mfib->routeArg_);
  }

  // Interface commands.
  CommandResponse addMulticastIntfs(const sfe::pb::MulticastIntfArg& arg);
  CommandResponse deleteMulticastIntfs(const sfe::pb::MulticastIntfArg& arg);

  // Setting commands.
  CommandResponse setBridgeMacAddr(const sfe::pb::EthernetConfigArg& arg);
  CommandResponse setCacheExpiryTimer(const sfe::pb::SizeArg& arg);
  CommandResponse setMaxUnresolvedCacheEntries(const sfe::pb::SizeArg& arg);
  CommandResponse setMaxUnresolvedPktBuffers(const sfe::pb::SizeArg& arg);
  CommandResponse setNoCacheSuppressionTimer(const sfe::pb::SizeArg& arg);
  CommandResponse setCounterIds(const sfe::pb::MfibCounterIdArg& arg);

  // Task commands.
  CommandResponse regMfibTasks(const sfe::pb::MfibTaskIdArg& arg);
  CommandResponse regCleanupTask(const sfe::pb::MfibTaskIdArg& arg);

  // Look-up. `entry` is null when there is none; it stays valid until the worker's next quiescent
  // state.
  enum class Match : uint8_t { kSourceGroup = 0, kWildcard = 1, kNone = 2 };
  struct LookupResult {
    const MfibPvSet* entry;
    Match status;
    MfibKey key;  // the key that was looked up last
  };
  LookupResult lookup(const MfibKey& key, const Mfib_U64& iif) const;

  // Forwarding of one packet. Returns: false when the packet was passed on unchanged to gate 0 or
  // dropped, true when it was forwarded or is held.
  bool ProcessPacket(Context* ctx,
                     bess::Packet* pkt,
                     bool reinjected,
                     OutputBatchMap& map,
                     TimePoint now);

  // True for gates 1 and 2.
  static bool isAllowedOutGate(uint16_t gate) { return isSelectableGate(gate); }

  // Alerts and their rate limits.
  void generateNoCacheAlert(Context* ctx,
                            const MfibKey& key,
                            Mfib_U64 iif,
                            uint8_t ttl,
                            TimePoint now);
  bool noCacheAlertLimited(uint8_t ttl) const;  // of packets with that TTL
  bool sgAlertDue(const MfibKey& key, TimePoint now) const;
  bool canSendSgAlert(const MfibKey& key, TimePoint now);  // and takes note of the alert
  // `now`: no more than a second ago. `own`: the key's own (S,G) entry, to take a note of a no.
  bool canAlertWrongVif(const MfibKey& key,
                        Mfib_U64 iif,
                        const MfibPvSet& entry,
                        TimePoint now = Clock::now(),
                        const MfibPvSet* own = nullptr) const;
  void addWrongVifTimestamp(const MfibKey& key, uint64_t iif, TimePoint now);
  bool sgAlertCleanup();
  bool wrongVifTimestampReview();

  // Counters.
  std::shared_ptr<IntfCounterEntry> forceLookupIntfCtrUpdates(uint64_t intf);
  std::shared_ptr<MrouteCounterEntry> forceLookupMrtCtrUpdates(const MfibKey& key);
  int getCounter(Context* ctx, const std::string& name) const;

  static Nynet::IpGenAddr addrArrayToGenAddr(const unsigned char* bytes, unsigned int af);

  // Name of the instance's route dump in the state file system: "/Mroute4_default".
  std::string stateFileName() const;

 private:
  friend std::string getMroutes(Mfib* mfib, unsigned int af);
  friend class MfibStates;
  friend class MfibMetrics;
  friend class MfibExplain;
  friend void updatePellIntfCounters(void* module);
  friend void updatePellMrouteCounters(void* module);
  friend struct MfibTestPeer;

  using RouteTable = NoCachePacketManager::RouteTable;
  using IntfSet = NoCachePacketManager::IntfSet;
  using IntfCounters = NoCachePacketManager::IntfCounters;
  using MrouteCounters = NoCachePacketManager::MrouteCounters;
  using AlertTimes = NyRcuHt<uint64_t, TimePoint>;
  using WrongVifTimes = NyRcuHt<MfibKey, std::shared_ptr<AlertTimes>>;
  using SgAlertTimes = NyRcuHt<MfibKey, TimePoint>;

  // Whether the route of a packet is looked for.
  enum class Search : uint8_t { kNone, kOwn, kAsPrevious };

  // What one packet carries through the steps of the packet path.
  struct PacketWork {
    PacketWork(ForwardingPass& itsPass, bess::Packet* packet, bool again)
        : pass(&itsPass), pkt(packet), reinjected(again) {}

    ForwardingPass* pass;
    bess::Packet* pkt;
    const char* data = nullptr;  // where it began when it came
    bool reinjected;
    Search search = Search::kNone;
    Parsed parsed = Parsed::kCutOff;
    uint32_t routeHash = 0;  // of the packet's key
    uint64_t inIntf = 0;
    const RouteTable::Node* located = nullptr;    // probably the (S,G) route's
    const MfibPvSet* sourceGroup = nullptr;       // the (S,G) route
    MrouteCounterEntry* routeCounters = nullptr;  // of the packet's own (S,G)
    bool dropped = false;
    PacketHeaders headers;

    Context* ctx() const { return pass->ctx(); }
    TimePoint now() const { return pass->now(); }
  };
  // Room for those of a batch, each of which is made when its packet arrives.
  struct BatchWork {
    PacketWork* packets() { return reinterpret_cast<PacketWork*>(bytes.data()); }

    alignas(
        PacketWork) std::array<std::byte, sizeof(PacketWork) * bess::PacketBatch::kMaxBurst> bytes;
  };
  LookupResult lookupAnySource(const MfibKey& key, const Mfib_U64& iif) const;

  enum class Forwarded : uint8_t { kHandled, kTtlExpired };

  bool ipv4() const { return af_ == kAfIpv4; }

  // Initialisation.
  CommandResponse createTables();
  void openNotifySocket();
  void createMessages();
  void mountCounterTables();
  void destroyTables();

  ForwardingPass::Tables tables() {
    return {*multicastIntfTable_, *intfCounterTable_, wayNumbers_, wayCounters_, fates_};
  }

  // What is done for all packets of a batch before the first one is decided on.
  [[gnu::always_inline]] PacketWork& arrive(void* room,
                                            bess::Packet* pkt,
                                            bool reinjected,
                                            ForwardingPass& pass) const;
  [[gnu::always_inline]] void hash(PacketWork& work, const PacketWork* previous) const;
  [[gnu::always_inline]] void locate(PacketWork& work) const;
  [[gnu::always_inline]] void lookUp(PacketWork& work,
                                     const PacketWork* previous,
                                     uint64_t arrangement) const;
  [[gnu::always_inline]] bool recallCounters(PacketWork& work,
                                             const PacketWork* previous,
                                             uint64_t departures) const;
  [[gnu::noinline]] void findCounters(PacketWork* begin, PacketWork* end) const;

  // Steps of the packet path, in their order.
  // Returns: how many packets were not dropped nor passed on unchanged.
  size_t decideAll(PacketWork* begin, PacketWork* end);
  [[gnu::always_inline]] bool decide(PacketWork& work);
  [[gnu::always_inline]] Parsed parse(PacketWork& work) const;
  [[gnu::noinline]] bool passUnchanged(PacketWork& work);
  [[gnu::noinline]] const MfibPvSet* findAnySource(PacketWork& work);
  [[gnu::noinline]] bool handleMissingRoute(PacketWork& work);
  [[gnu::always_inline]] void countForRoute(PacketWork& work);
  [[gnu::always_inline]] void applyRoute(PacketWork& work, const MfibPvSet& entry);
  [[gnu::noinline]] void considerWrongVif(PacketWork& work, const MfibPvSet& entry);
  [[gnu::always_inline]] Forwarded forward(PacketWork& work, const MfibPvSet& entry);
  void decapsulate(bess::Packet* pkt) const;
  [[gnu::noinline]] void sendWholePacket(PacketWork& work);
  [[gnu::always_inline]] void rewriteIp(PacketWork& work) const;
  [[gnu::always_inline]] void rewriteLink(bess::Packet* pkt, const MfibPvSet& entry) const;
  [[gnu::always_inline]] void replicate(PacketWork& work, const MfibPvSet& entry);
  [[gnu::always_inline]] void sendOriginal(PacketWork& work,
                                           const MfibPvSet& entry,
                                           uint8_t gateSelect);
  [[gnu::always_inline]] void sendCopies(PacketWork& work,
                                         const MfibPvSet& entry,
                                         uint8_t gateSelect,
                                         const bess::PacketCopier::Metadata& metadata);
  [[gnu::always_inline]] static size_t sendCopies(PacketWork& work,
                                                  const bess::PacketCopier::Metadata& metadata,
                                                  ForwardingPass::Outgoing* const* outs,
                                                  size_t count);
  [[gnu::always_inline]] bess::PacketCopier::Metadata metadataOfCopies(const PacketWork& work,
                                                                       uint8_t gateSelect) const;
  [[gnu::noinline]] void drop(PacketWork& work, Fate reason);
  [[gnu::always_inline]] static bool finish(PacketWork& work);
  void fillMessage(const Orp::Ptr<Nynet::MrtMessage>& msg, const PacketWork& work) const;
  void flush(Context* ctx, OutputBatchMap& map);

  // Tasks.
  struct RunTotals {
    uint32_t taken = 0;
    uint32_t packets = 0;
    uint64_t bytes = 0;
    bool didWork = false;
  };
  RunTotals resolveHeldPackets(Context* ctx);
  void reinjectKey(Context* ctx,
                   const MfibKey& key,
                   OutputBatchMap& map,
                   TimePoint now,
                   RunTotals& totals);
  bool reinject(Context* ctx,
                UnresolvedPacket* held,
                OutputBatchMap& map,
                TimePoint now,
                RunTotals& totals);
  sfe::pb::MfibTaskIdArg taskAnswer(task_id_t taskId) const;

  // Commands.
  CommandResponse checkAddressLengths(const sfe::pb::MfibRouteArg& arg) const;
  MfibKey routeKeyOf(const sfe::pb::MfibRouteArg& arg) const;
  std::shared_ptr<MfibPvSet> buildEntry(const sfe::pb::MfibRouteArg& arg, const MfibKey& key) const;
  void insertRoute(const MfibKey& key, std::shared_ptr<MfibPvSet> entry);
  void ensureMrouteRecord(const MfibKey& key);
  std::string keyText(const MfibKey& key) const;
  Sfe::Multicast::MrouteCounter mrouteRecord(const Routing::Multicast::Fib::IpGenRouteKey& key);
  Sfe::Multicast::IntfCounter intfRecord(Nynet::IntfId id);
  void mrouteCountChanged(uint32_t change);
  void fitRouteTable();
  std::atomic<uint32_t>& routesOfType(const MfibKey& key) {
    return routesByType_[key.source == AddrBytes{} ? kAnySource : kSourceGroup];
  }

  // Set by Init, released by DeInit; constant in between.
  Orp::Ptr<Routing::Multicast::Notify::MrtNotifyNetlinkSocketPam> notifySocket_;
  Orp::Ptr<Routing::Multicast::Notify::WrongVifMessage> wrongVifMsg_;
  Orp::Ptr<Routing::Multicast::Notify::NoCacheMessage> noCacheMsg_;
  Orp::Ptr<Routing::Multicast::Notify::WholePktMessage> wholePktMsg_;
  NoCachePacketManager* noCacheMgr_ = nullptr;
  task_id_t mfibTaskId_ = kInvalidTaskId;  // until it is registered
  task_id_t cleanupTaskId_ = kInvalidTaskId;
  RouteTable* mfib_ = nullptr;
  IntfSet* multicastIntfTable_ = nullptr;
  IntfCounters* intfCounterTable_ = nullptr;
  MrouteCounters* mrouteCounterTable_ = nullptr;
  WrongVifTimes* wrongVifTimestampTable_ = nullptr;
  SgAlertTimes* sgAlertTable_ = nullptr;
  Orp::Ptr<Sfe::Multicast::MrouteCounterTable> pellMrouteCounterTable_;
  Orp::Ptr<Sfe::Multicast::IntfCounterTable> pellIntfCounterTable_;
  uint32_t af_ = 0;  // 1 = IPv4, any other value IPv6

  // Settings: written by control, read by workers.
  std::atomic<uint32_t> noCacheSuppressionTimer_{5};  // seconds
  const uint32_t sgAlertCleanupLimit_ = 1024;         // entries of one pass
  const uint32_t wrongVifAlertInterval_ = 15;         // seconds; not 0
  std::string vrfName_;
  uint32_t vrfId_ = 0;
  uint32_t maxMroute_ = 0;  // told and shown; no limit follows from it
  uint32_t addrLen_ = 0;    // bytes per address, 4 or 16
  std::atomic<uint64_t> bridgeMac_{
      0};  // six bytes in memory order, in one word so that no packet sees half of two
  bool modeFlag_ = false;  // IPv4 packets carry an Ethernet header
  Orp::String<kMaxNamespaceBytes> namespaceName_;

  PacketFates fates_;                 // named by Init after family and VRF
  NotificationCounts notifications_;  // likewise
  sfe::pb::MfibRouteArg routeArg_;    // control: of the route command that ran last
  ForwardingPass::WayCounters wayCounters_;
  WayNumbers wayNumbers_;  // of the first ways out that routes have had
  static constexpr uint32_t kFewestBuckets = 128;
  uint32_t routeBuckets_ = kFewestBuckets;  // control: that the route table was last made to have
  // Written by control, before a route is in the table and after it is out: workers look for no
  // (*,G) route where there is none.
  enum RouteType : uint8_t { kSourceGroup, kAnySource, kRouteTypes };
  std::array<std::atomic<uint32_t>, kRouteTypes> routesByType_{};
  MonotoneTotals totals_;     // control
  uint32_t mrouteCount_ = 0;  // control: route commands that took effect, replacements included
  std::atomic<uint32_t> runTaskCount_{0};  // runs of the cleanup task
  const TimePoint createdAt_;
  std::atomic<size_t> lastDumpBytes_{0};  // readers: what the next dump will about need

  CounterUpdateHandle intfCounterUpdateHandle_;
  CounterUpdateHandle mrouteCounterUpdateHandle_;
  bool dumpRegistered_ = false;  // the state file of that name is this instance's
  bool intfUpdateRegistered_ = false;
  bool mrouteUpdateRegistered_ = false;

  // Columns of the per-worker event counters: written by control, read by workers.
  std::atomic<uint32_t> nonMcastIifCounterId_{0};
  std::atomic<uint32_t> wrongVifCounterId_{0};
  std::atomic<uint32_t> wholePktCounterId_{0};
  std::atomic<uint32_t> noCacheCounterId_{0};
  std::atomic<uint32_t> noCacheResolvedCounterId_{0};  // readable, never counted
  std::atomic<uint32_t> noCacheExpiredCounterId_{0};   // likewise
};

// The register tunnel's interface, "Register0".
extern const Nynet::IntfId registerIntfId_;

// Feature toggle "MfaWcFwd": packets without an (S,G) route may use the (*,G) route. Asked for once
// per process.
bool toggleMfaWcFwdEnabled();

// Zeroed records of the shared counter tables.
Sfe::Multicast::IntfCounter intfCounter(Nynet::IntfId id);
Sfe::Multicast::MrouteCounter mrouteCounter(Routing::Multicast::Fib::IpGenRouteKey key);

// Publication of what was counted since the last time; the argument is the Mfib.
void updatePellIntfCounters(void* module);
void updatePellMrouteCounters(void* module);

// Fill a message's addresses: host byte order for IPv4, 16 bytes in network order each for IPv6.
void v4MrtNotifyMessage(Orp::Ptr<Nynet::MrtMessage> msg, uint32_t source, uint32_t group);
void v6MrtNotifyMessage(Orp::Ptr<Nynet::MrtMessage> msg,
                        const unsigned char* source,
                        const unsigned char* group);

}  // namespace SfeModules
