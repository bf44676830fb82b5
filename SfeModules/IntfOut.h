// IntfOut: the edge through which packets leave the engine.
//
// A packet's outgoing interface names the output gate (its port's number) and the VLAN tag. A
// packet that still needs a link header (the IP encapsulation hint) gets one: the group's Ethernet
// address and the interface's own. A buffer that is shared with another packet is never written:
// what is new goes into a segment in front of it.
//
// Threads    : as Module says; every worker may be in one instance.
#pragma once

#include "Bess/Module.h"
#include "Bess/ModuleBuilder.h"
#include "SfeModules/IntfDrops.h"
#include "SfeModules/IntfTable.h"
#include "protocol/sfe.pb.h"

namespace SfeModules {

class IntfOut final : public Module {
 public:
  enum class Drop { kNoInterface, kUnknownInterface, kRunt, kNotMulticast, kNoBuffer, kReasons };

  IntfOut();
  CommandResponse Init(const sfe::pb::IntfOutArg& arg);
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
  void drop(Context* ctx, bess::Packet* pkt, Drop reason);

  IntfTable table_;
  Drops drops_;
};

}  // namespace SfeModules
