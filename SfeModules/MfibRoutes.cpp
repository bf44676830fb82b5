// The commands "addMroute" and "deleteMroute".

#include <netinet/in.h>
#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "Base/Bindle/Exceptions.h"
#include "Base/RcuAnnotate.h"
#include "Base/Trace.h"
#include "SfeModules/AddressText.h"
#include "SfeModules/CounterEntries.h"
#include "SfeModules/Fuse.h"
#include "SfeModules/Mfib.h"

namespace SfeModules {

namespace {

constexpr uint32_t kDumpBytesPerRoute = 500;

constexpr const char* kAddSignature =
    "CommandResponse SfeModules::Mfib::addMroute(const sfe::pb::MfibRouteArg&)";
constexpr const char* kDeleteSignature =
    "CommandResponse SfeModules::Mfib::deleteMroute(const sfe::pb::MfibRouteArg&)";

}  // namespace

Sfe::Multicast::MrouteCounter mrouteCounter(Routing::Multicast::Fib::IpGenRouteKey key) {
  return Sfe::Multicast::MrouteCounter(key);
}

// A control plane that sends short addresses would otherwise program a route of bytes that it never
// sent.
CommandResponse Mfib::checkAddressLengths(const sfe::pb::MfibRouteArg& arg) const {
  const std::pair<const char*, const std::string*> fields[] = {{"source", &arg.source()},
                                                               {"group", &arg.group()}};
  for (const auto& [name, bytes] : fields) {
    if (bytes->size() < addrLen_) {
      return CommandFailure(EINVAL, "Mfib: %s has %zu bytes, expected %u (an %s address)", name,
                            bytes->size(), addrLen_, ipv4() ? "IPv4" : "IPv6");
    }
  }
  return CommandSuccess();
}

MfibKey Mfib::routeKeyOf(const sfe::pb::MfibRouteArg& arg) const {
  return MfibKey::of(reinterpret_cast<const uint8_t*>(arg.source().data()),
                     reinterpret_cast<const uint8_t*>(arg.group().data()), addrLen_);
}

std::shared_ptr<MfibPvSet> Mfib::buildEntry(const sfe::pb::MfibRouteArg& arg,
                                            const MfibKey& key) const {
  auto entry = MfibPvSet::make(static_cast<uint32_t>(arg.oifs_size()));
  entry->iif = Nynet::IntfId(arg.iif());
  entry->iifFrr = Nynet::IntfId(arg.iif_frr());
  entry->notify = Nynet::IntfId(arg.notify());
  entry->fastdrop = Nynet::IntfId(arg.fastdrop());
  entry->toCpu = arg.to_cpu();
  entry->iifRegister = arg.iif_register();
  entry->oifRegister = arg.oif_register();
  entry->dstMac = multicastMac(af_, key.group);
  return entry;
}

CommandResponse Mfib::addMroute(const sfe::pb::MfibRouteArg& arg) {
  SFE_TRACE_AS(kAddSignature, "Mfib", 6, "iif: ", arg.iif(), ", source: ", arg.source(),
               ", group: ", arg.group(), ", oifnum: ", static_cast<uint32_t>(arg.oifs_size()));
  if (CommandResponse refusal = checkAddressLengths(arg); refusal.has_error()) {
    return refusal;
  }
  const MfibKey key = routeKeyOf(arg);
  const uint32_t hash = mfib_->nyHash(key);
  mfib_->prefetch(hash);
  std::shared_ptr<MfibPvSet> entry = buildEntry(arg, key);

  // A route is replaced by taking the old entry out first: until the new one is in, its packets
  // find no route.
  if (const std::shared_ptr<MfibPvSet>* found = mfib_->find(key, hash); found != nullptr) {
    mfib_->erase(key);
    routesOfType(key) -= 1;
  }

  ensureMrouteRecord(key);
  for (uint32_t i = 0; i < entry->numOifs; ++i) {
    const sfe::pb::OifArg& oif = arg.oifs(static_cast<int>(i));
    entry->oifGates()[i] = oif.gate();
    entry->oifs()[i] = Nynet::IntfId(oif.intf_id());
    entry->oifWays()[i] =
        wayNumbers_.of({.intfId = oif.intf_id(), .gate = static_cast<uint16_t>(oif.gate())});
    SFE_TRACE_AS(kAddSignature, "Mfib", 7, "OIF gate: ", oif.gate());
    SFE_TRACE_AS(kAddSignature, "Mfib", 7, "OIF id: ", oif.intf_id());
  }
  const bool releasesHeldPackets = entry->numOifs > 0 || entry->oifRegister;
  insertRoute(key, std::move(entry));
  mrouteCountChanged(1);
  if (releasesHeldPackets) {
    noCacheMgr_->resolvePendingPackets(key);
  }
  fitRouteTable();
  return CommandSuccess();
}

void Mfib::insertRoute(const MfibKey& key, std::shared_ptr<MfibPvSet> entry) {
  routesOfType(key) += 1;
  try {
    mfib_->insert(key, std::move(entry));
  } catch (...) {
    routesOfType(key) -= 1;
    throw;
  }
}

CommandResponse Mfib::deleteMroute(const sfe::pb::MfibRouteArg& arg) {
  SFE_TRACE_AS(kDeleteSignature, "Mfib", 6, "iif: ", arg.iif(), ", source: ", arg.source(),
               ", group: ", arg.group());
  if (CommandResponse refusal = checkAddressLengths(arg); refusal.has_error()) {
    return refusal;
  }
  const MfibKey key = routeKeyOf(arg);
  const uint32_t hash = mfib_ != nullptr ? mfib_->nyHash(key) : 0;
  if (mfib_ != nullptr) {
    mfib_->prefetch(hash);
  }
  const auto routeKey = ipGenRouteKey(af_, key);
  // A record with packets still held stays until they are gone; this does not depend on the route
  // being there.
  if (pellMrouteCounterTable_ && mrouteRecord(routeKey).pktsQueued() == 0) {
    pellMrouteCounterTable_->mrouteDel(routeKey);
  }
  std::shared_ptr<MfibPvSet> entry;  // dropped last
  if (mfib_ != nullptr) {
    const std::shared_ptr<MfibPvSet>* found = mfib_->find(key, hash);
    if (found == nullptr) {
      return CommandSuccess();
    }
    entry = *found;
    if (!mfib_->erase(key)) {
      return CommandFailure(EINVAL, "Mfib: removeMroute failed");
    }
    routesOfType(key) -= 1;
    fitRouteTable();
  }
  mrouteCountChanged(static_cast<uint32_t>(-1));
  SFE_TRACE_AS(kDeleteSignature, "Mfib", 7, "Successfully deleted Mroute ");
  return CommandSuccess();
}

Sfe::Multicast::MrouteCounter Mfib::mrouteRecord(
    const Routing::Multicast::Fib::IpGenRouteKey& key) {
  return readRecord(*pellMrouteCounterTable_, &Sfe::Multicast::MrouteCounterTable::mroute, key);
}

// An existing record is left as it is, so a replaced route keeps its counts.
void Mfib::ensureMrouteRecord(const MfibKey& key) {
  const Sfe::Multicast::MrouteCounter record = mrouteCounter(ipGenRouteKey(af_, key));
  bool made = true;
  try {
    made = pellMrouteCounterTable_->mrouteNew(record);
  } catch (const Bindle::CorruptionDetectedException& error) {
    pellMrouteCounterTable_->doCorruptionDetected(error.what());
    pellMrouteCounterTable_->mrouteIs(record);
  }
  if (made) {
    SFE_TRACE_AS(kAddSignature, "Mfib", 7, "Initializing Mroute counter for ", keyText(key));
  }
}

// As IpGenRouteKey::stringValue() has it, at a fraction of its cost.
std::string Mfib::keyText(const MfibKey& key) const {
  std::string text;
  text.reserve(2 * INET6_ADDRSTRLEN + 16);
  text += '(';
  appendNumericAddr(text, key.source.data(), ipv4());
  text += ipv4() ? "/32," : "/128,";
  appendNumericAddr(text, key.group.data(), ipv4());
  text += ipv4() ? "/32)" : "/128)";
  return text;
}

// Left alone, the table grows when its chains are eight long on average, and every look-up walks
// them. It shrinks by itself.
void Mfib::fitRouteTable() {
  const uint32_t routes = routesByType_[0] + routesByType_[1];
  if (routes <= routeBuckets_) {
    if (routes < routeBuckets_ / 4) {
      routeBuckets_ = std::max(kFewestBuckets, routeBuckets_ / 2);
    }
    return;
  }
  routeBuckets_ *= 2;
  // Whoever shrinks it at this moment waits for a grace period. Offline the walk over the chains is
  // safe because this thread alone takes routes out.
  SFE_RCU_QUIESCENT();
  urcu_qsbr_thread_offline();
  cds_lfht_resize(mfib_->table(), routeBuckets_);
  urcu_qsbr_thread_online();
}

// Counts commands, not routes: a replacement counts again. It sizes what the state file system
// reports.
void Mfib::mrouteCountChanged(uint32_t change) {
  mrouteCount_ += change;
  fuseUpdateBufferSize(mrouteCount_ * kDumpBytesPerRoute);
}

}  // namespace SfeModules
