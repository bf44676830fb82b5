// IntfOut: the edge through which packets leave the engine.
//
// A packet's outgoing interface names the output gate (its port's number) and the VLAN tag. A
// packet that still needs a link header (the IP encapsulation hint) gets one: the group's Ethernet
// address and the interface's own. A buffer that is shared with another packet is never written:
// what is new goes into a segment in front of it.
//
// Threads    : as Module says; every worker may be in one instance.
#pragma once

#include "SfeModules/IntfEdge.h"
#include "protocol/sfe.pb.h"

namespace SfeModules {

enum class IntfOutDrop {
  kNoInterface,
  kUnknownInterface,
  kRunt,
  kNotMulticast,
  kNoBuffer,
  kReasons
};

class IntfOut final : public IntfEdge<IntfOut, IntfOutDrop> {
 public:
  IntfOut();
  CommandResponse Init(const sfe::pb::IntfOutArg& arg);

  static ModuleClass moduleClass();

 private:
  friend IntfEdge;

  void process(Context* ctx, bess::Packet* pkt);
};

// Made where process() is, so that the walk over a batch has it in line.
extern template class IntfEdge<IntfOut, IntfOutDrop>;

}  // namespace SfeModules
