// What IntfIn and IntfOut have in common: a table of interfaces, drops by reason, the commands
// about both, and the walk over a batch. `Edge` is the class itself; its process(ctx, pkt) takes a
// packet with its header fetched.
//
// Threads    : as Module says; every worker may be in one instance.
#pragma once

#include <rte_prefetch.h>

#include <cstddef>
#include <string>
#include <vector>

#include "Bess/Module.h"
#include "Bess/ModuleBuilder.h"
#include "SfeModules/IntfDrops.h"
#include "SfeModules/IntfTable.h"
#include "protocol/sfe.pb.h"

namespace SfeModules {

// `Reason` is an enumeration that counts from 0 and ends with kReasons.
template <class Edge, class Reason>
class IntfEdge : public Module {
 public:
  using Drop = Reason;

  void ProcessBatch(Context* ctx, bess::PacketBatch* batch) final {
    for (bess::Packet* pkt : *batch) {
      rte_prefetch0(pkt->headData());
    }
    for (bess::Packet* pkt : *batch) {
      static_cast<Edge*>(this)->process(ctx, pkt);
    }
  }

  std::string GetDesc() const final;  // data path: no, control only

  CommandResponse addIntf(const sfe::pb::IntfArg& arg) { return table_.add(arg); }
  CommandResponse delIntf(const sfe::pb::IntfNameArg& arg) { return table_.remove(arg); }
  CommandResponse showIntfs(const sfe::pb::EmptyIntfArg&) {
    sfe::pb::IntfTable answer;
    table_.show(&answer);
    drops_.show(&answer);
    return CommandSuccess(answer);
  }
  uint64_t drops(Drop reason) const { return drops_.total(reason); }

 protected:
  using Drops = IntfDrops<Reason, static_cast<size_t>(Reason::kReasons)>;

  explicit IntfEdge(const typename Drops::Names& reasons) : drops_(reasons) {
    maxAllowedWorkers_ = MAX_WORKERS;
  }

  void drop(Context* ctx, bess::Packet* pkt, Drop reason) {
    drops_.count(ctx->wid, reason);
    DropPacket(ctx, pkt);
  }

  static std::vector<GenericCommand> edgeCommands() {
    return {makeCommand<&IntfEdge::addIntf>("addIntf", "IntfArg"),
            makeCommand<&IntfEdge::delIntf>("delIntf", "IntfNameArg"),
            makeCommand<&IntfEdge::showIntfs>("showIntfs", "EmptyIntfArg")};
  }

  IntfTable table_;

 private:
  Drops drops_;
};

template <class Edge, class Reason>
std::string IntfEdge<Edge, Reason>::GetDesc() const {
  return std::to_string(table_.size()) + " interfaces";
}

}  // namespace SfeModules
