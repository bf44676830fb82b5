// What makes the framework know the class: the factory, the command table, the setter commands.

#include <rte_malloc.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "Base/Bindle/String.h"
#include "Base/NyToggles/NyToggles.h"
#include "Base/Trace.h"
#include "Bess/ModuleBuilder.h"
#include "SfeModules/Mfib.h"

namespace SfeModules {

const Nynet::IntfId registerIntfId_ = Nynet::IntfId::fromName("Register0");

bool toggleMfaWcFwdEnabled() {
  static const bool kEnabled = getToggleState("MfaWcFwd", "Mroute.json", true);
  return kEnabled;
}

namespace {

template <auto Method>
GenericCommand command(const char* name, const char* argType) {
  return makeCommand<Method>(name, argType, GenericCommand::kThreadSafe);
}

template <auto Method>
GenericCommand routeCommand(const char* name) {
  GenericCommand result = command<Method>(name, "MfibRouteArg");
  result.run = &Mfib::runRouteCommand<Method>;
  return result;
}

}  // namespace

const Commands Mfib::cmds = {
    routeCommand<&Mfib::addMroute>("addMroute"),
    routeCommand<&Mfib::deleteMroute>("deleteMroute"),
    command<&Mfib::addMulticastIntfs>("addMulticastIntfs", "MulticastIntfArg"),
    command<&Mfib::deleteMulticastIntfs>("deleteMulticastIntfs", "MulticastIntfArg"),
    command<&Mfib::setBridgeMacAddr>("setBridgeMacAddr", "EthernetConfigArg"),
    command<&Mfib::setCacheExpiryTimer>("setCacheExpiryTimer", "SizeArg"),
    command<&Mfib::setMaxUnresolvedCacheEntries>("setMaxUnresolvedCacheEntries", "SizeArg"),
    command<&Mfib::setMaxUnresolvedPktBuffers>("setMaxUnresolvedPktBuffers", "SizeArg"),
    command<&Mfib::setNoCacheSuppressionTimer>("setNoCacheSuppressionTimer", "SizeArg"),
    command<&Mfib::regMfibTasks>("regMfibTasks", "MfibTaskIdArg"),
    command<&Mfib::setCounterIds>("setCounterIds", "MfibCounterIdArg"),
    command<&Mfib::regCleanupTask>("regCleanupTask", "MfibTaskIdArg"),
};

namespace {

constexpr gate_idx_t kGates = 8192;

struct MfibClass {
  MfibClass() {
    ModuleBuilder::RegisterModuleClass([] { return Mfib::create(); }, "Mfib", "Mfib", "Mfib module",
                                       kGates, kGates, Mfib::cmds, makeInit<&Mfib::Init>());
  }
  ~MfibClass() { ModuleBuilder::DeregisterModuleClass("Mfib"); }
  MfibClass(const MfibClass&) = delete;
  MfibClass& operator=(const MfibClass&) = delete;
};

const MfibClass
    Mfib_class;  // NOLINT(readability-identifier-naming): the name that the framework's users know

}  // namespace

Module* Mfib::create() {
  constexpr unsigned kAlignment = 64;
  void* memory = rte_zmalloc(nullptr, sizeof(Mfib), kAlignment);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  try {
    return new (memory) Mfib;
  } catch (...) {
    rte_free(memory);
    throw;
  }
}

void Mfib::operator delete(void* object) noexcept {
  rte_free(object);
}

Mfib::Mfib() : createdAt_(Clock::now()) {
  isTask_ = true;
  maxAllowedWorkers_ = MAX_WORKERS;
}

CommandResponse Mfib::setMaxUnresolvedCacheEntries(const sfe::pb::SizeArg& arg) {
  noCacheMgr_->maxUnresolvedCacheEntries_ = arg.value();
  return CommandSuccess();
}

CommandResponse Mfib::setMaxUnresolvedPktBuffers(const sfe::pb::SizeArg& arg) {
  noCacheMgr_->maxUnresolvedPktBuffers_ = arg.value();
  return CommandSuccess();
}

CommandResponse Mfib::setCacheExpiryTimer(const sfe::pb::SizeArg& arg) {
  noCacheMgr_->expiryTimer_ = arg.value();
  SFE_TRACE("Mfib", 6, "Set noCacheMgr_->expiryTimer_ to ", arg.value());
  return CommandSuccess();
}

CommandResponse Mfib::setNoCacheSuppressionTimer(const sfe::pb::SizeArg& arg) {
  noCacheSuppressionTimer_ = arg.value();
  SFE_TRACE("Mfib", 6, "Set noCacheSuppressionTimer_ to ", arg.value());
  return CommandSuccess();
}

CommandResponse Mfib::setBridgeMacAddr(const sfe::pb::EthernetConfigArg& arg) {
  if (arg.mac().size() != kMacLen) {
    return CommandFailure(EINVAL, "Invalid MAC address size");
  }
  uint64_t word = 0;
  std::memcpy(&word, arg.mac().data(), kMacLen);
  bridgeMac_.store(word, std::memory_order_relaxed);
  return CommandSuccess();
}

CommandResponse Mfib::setCounterIds(const sfe::pb::MfibCounterIdArg& arg) {
  nonMcastIifCounterId_ = arg.non_mcast_iif();
  wrongVifCounterId_ = arg.wrong_vif();
  wholePktCounterId_ = arg.whole_pkt();
  noCacheCounterId_ = arg.no_cache();
  noCacheResolvedCounterId_ = arg.no_cache_resolved();
  noCacheExpiredCounterId_ = arg.no_cache_expired();
  return CommandSuccess();
}

}  // namespace SfeModules
