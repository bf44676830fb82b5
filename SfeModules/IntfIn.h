// IntfIn: the edge through which frames enter the engine.
//
// A frame belongs to the interface of its port and VLAN. Gate 0: IPv4 multicast data, gate 1: IPv6
// multicast data, both without their VLAN tag; gate 2: everything else, unchanged, for the host. An
// interface with a gate base has these three gates from that number on, so that the interfaces of a
// VRF lead to the VRF's own instances. A
// packet that leaves carries its incoming interface and no other metadata. Frames of unknown ports
// and VLANs, frames to somebody else's unicast address, and frames whose headers are cut off are
// dropped and counted by reason.
//
// Data leaves with its headers, up to kHeaderBytes behind the link header, in the first segment.
//
// Threads    : as Module says; every worker may be in one instance.
#pragma once

#include "Bess/Module.h"
#include "Bess/ModuleBuilder.h"
#include "SfeModules/IntfDrops.h"
#include "SfeModules/IntfFrame.h"
#include "SfeModules/IntfTable.h"
#include "protocol/sfe.pb.h"

namespace SfeModules {

class IntfIn final : public Module {
 public:
  static constexpr gate_idx_t kIpv4Gate = 0;
  static constexpr gate_idx_t kIpv6Gate = 1;
  static constexpr gate_idx_t kHostGate = 2;
  static constexpr gate_idx_t kGatesOfBase = 3;
  static constexpr gate_idx_t kGates = IntfTable::kMaxGateBase + kGatesOfBase;

  // The longest headers that forwarding looks at: IPv6, a Register's PIM header, IPv6.
  static constexpr uint32_t kHeaderBytes = 40 + 8 + 40;

  enum class Drop {
    kRunt,
    kTruncated,
    kUnknownPort,
    kUnknownVlan,
    kOtherHost,
    kNoBuffer,
    kReasons
  };

  IntfIn();
  CommandResponse Init(const sfe::pb::IntfInArg& arg);
  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) override;
  std::string GetDesc() const override;

  CommandResponse addIntf(const sfe::pb::IntfArg& arg);
  CommandResponse delIntf(const sfe::pb::IntfNameArg& arg);
  CommandResponse showIntfs(const sfe::pb::EmptyIntfArg& arg);
  uint64_t drops(Drop reason) const { return drops_.total(reason); }

  static ModuleClass moduleClass();

 private:
  using Drops = IntfDrops<Drop, static_cast<size_t>(Drop::kReasons)>;

  void process(Context* ctx, bess::Packet* pkt);
  void passData(Context* ctx,
                bess::Packet* pkt,
                const LinkHeader& link,
                bool ipv4,
                gate_idx_t gateBase);
  void drop(Context* ctx, bess::Packet* pkt, Drop reason);

  IntfTable table_;
  bool stripIpv4_ = false;
  Drops drops_;
};

}  // namespace SfeModules
