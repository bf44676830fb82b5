// Initialisation and teardown of an instance.

#include <rte_errno.h>
#include <urcu-qsbr.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "Base/Bindle/String.h"
#include "Base/Orp/SystemException.h"
#include "Base/Trace.h"
#include "Nynet/NamespaceName.h"
#include "Nynet/VrfName.h"
#include "Sfe/OrpPell/MountInfo.h"
#include "Sfe/OrpSharedMem/EntityManager.h"
#include "SfeModules/Assert.h"
#include "SfeModules/Fuse.h"
#include "SfeModules/Mfib.h"
#include "SfeModules/MfibStates.h"

namespace SfeModules {

namespace {

constexpr uint32_t kInitialBuckets = 128;
constexpr bool kDeferredFree = true;
constexpr uint32_t kSharedCounterRecords = 60000;
constexpr int kSharedMemType = 0;

// What the steps of an initialisation trace under.
constexpr const char* kInitSignature =
    "CommandResponse SfeModules::Mfib::Init(const sfe::pb::MfibArg&)";

// Network namespace of a VRF other than the default one.
const Bindle::String namespacePrefix_ = "ns-";

// How many entries each look-up of the packet path reaches at once; beyond that it takes a walk.
constexpr uint32_t kIndexedRoutes = 1U << 20;
constexpr uint32_t kIndexedAlerts = 1U << 16;
constexpr uint32_t kIndexedIntfs = 1U << 12;

template <class Table>
Table* createTable(uint32_t indexedEntries) {
  return new (std::nothrow)
      Table(kInitialBuckets, kDeferredFree, kInitialBuckets, nullptr, nullptr, indexedEntries);
}

template <class Table>
void destroyTable(Table*& table) {
  if (table != nullptr) {
    delete std::exchange(table, nullptr);  // may throw: the table could not be destroyed
  }
}

Nynet::AddressFamily familyOf(uint32_t af) {
  return af == kAfIpv4 ? Nynet::AddressFamily::kIpv4 : Nynet::AddressFamily::kIpv6;
}

template <class Table>
Orp::Ptr<Table> mountTable(OrpSharedMem::EntityManager& manager,
                           const std::string& path,
                           const char* typeName,
                           const char* collection) {
  OrpPell::MountInfo info(kSharedMemType);
  info.collectionInfoIs(collection, kSharedCounterRecords);
  manager.doMount(path, typeName, info);
  return Orp::ptrCast<Table>(manager.getEntity(path));
}

}  // namespace

CommandResponse Mfib::Init(const sfe::pb::MfibArg& arg) {
  SFE_TRACE_AS(kInitSignature, "Mfib", 6, "max_mroute: ", arg.max_mroute(), ", af: ", arg.af(),
               ", vrfname: ", arg.vrfname(), ", vrfid ", arg.vrfid());
  af_ = arg.af();
  vrfName_ = arg.vrfname();
  vrfId_ = arg.vrfid();
  maxMroute_ = arg.max_mroute();
  addrLen_ = af_ == kAfIpv4 ? kIpv4AddrLen : kIpv6AddrLen;
  modeFlag_ = arg.ethernet_mode();

  if (CommandResponse failure = createTables(); failure.has_error()) {
    return failure;
  }
  openNotifySocket();
  createMessages();
  mountCounterTables();
  intfCounterTable_ = createTable<IntfCounters>(kIndexedIntfs);
  mrouteCounterTable_ = createTable<MrouteCounters>(kIndexedRoutes);
  noCacheMgr_ = new NoCachePacketManager(af_, *multicastIntfTable_, *mfib_, *intfCounterTable_,
                                         *mrouteCounterTable_);
  const std::string prefix = std::string("mfib") + (ipv4() ? "4" : "6") + "." + vrfName_;
  fates_.nameIs(prefix);
  notifications_.nameIs(prefix);
  noCacheMgr_->fatesIs(&fates_);
  intfCounterUpdateHandle_ = registerCounterUpdate(updatePellIntfCounters, this);
  intfUpdateRegistered_ = true;
  mrouteCounterUpdateHandle_ = registerCounterUpdate(updatePellMrouteCounters, this);
  mrouteUpdateRegistered_ = true;
  for (bess::State& state : MfibStates::of(*this)) {
    addState(std::move(state.name), std::move(state.help), std::move(state.text));
  }
  return CommandSuccess();
}

CommandResponse Mfib::createTables() {
  // The reclaim thread is made here: a worker never has to.
  urcu_qsbr_get_default_call_rcu_data();

  mfib_ = createTable<RouteTable>(kIndexedRoutes);
  SFE_ASSERT(mfib_);
  multicastIntfTable_ = createTable<IntfSet>(kIndexedIntfs);
  if (multicastIntfTable_ == nullptr) {
    return CommandFailure(rte_errno, "multicastIntf: failed to create hash table. Error: %s",
                          rte_strerror(-ENOMEM));
  }
  wrongVifTimestampTable_ = createTable<WrongVifTimes>(kIndexedAlerts);
  if (wrongVifTimestampTable_ == nullptr) {
    return CommandFailure(rte_errno, "wrongVifTimestamp: failed to create hash table. Error: %s",
                          rte_strerror(-ENOMEM));
  }
  sgAlertTable_ = createTable<SgAlertTimes>(kIndexedAlerts);
  if (sgAlertTable_ == nullptr) {
    return CommandFailure(rte_errno, "sgAlert: failed to create hash table. Error: %s",
                          rte_strerror(-ENOMEM));
  }
  return CommandSuccess();
}

void Mfib::openNotifySocket() {
  using Routing::Multicast::Notify::MrtNotifyNetlinkSocketPam;
  const L3::VrfName vrf(vrfName_);
  std::string name = Nynet::NamespaceName::defaultNamespace().str();
  if (vrf != L3::VrfName::defaultVrf()) {
    name = std::string(namespacePrefix_.data(), namespacePrefix_.size()) + vrfName_;
  }
  namespaceName_ = Orp::String<kMaxNamespaceBytes>(name, "Orp::String::bytes > 150 not allowed");

  notifySocket_ = Orp::makePtr<MrtNotifyNetlinkSocketPam>(
      "Sfe", Nynet::NamespaceName(namespaceName_.view()), true);
  notifySocket_->hasNotificationActiveIs(true);
  notifySocket_->afIs(familyOf(af_));
  try {
    notifySocket_->enableTxIs(true);
  } catch (const Orp::SystemException& error) {
    if (error.errnoValue() != EINVAL && error.errnoValue() != ENOENT) {
      SFE_TRACE_AS(kInitSignature, "Mfib", 6,
                   "Enabling Tx socket returned unexpected error: ", error.errnoValue(),
                   ". Exiting due to the same.");
      SFE_ASSERT(0 && "MrtNotifyNetlinkSocketPam::enableTxIs() failed");
    }
    SFE_TRACE_AS(kInitSignature, "Mfib", 6,
                 "Enabling Tx socket returned error: ", error.errnoValue(), ". Ignoring the same.");
  }
}

void Mfib::createMessages() {
  using namespace Routing::Multicast::Notify;  // NOLINT(google-build-using-namespace): three of its
                                               // names
  noCacheMsg_ = Orp::makePtr<NoCacheMessage>();
  noCacheMsg_->hasNotificationActiveIs(true);
  wrongVifMsg_ = Orp::makePtr<WrongVifMessage>();
  wrongVifMsg_->hasNotificationActiveIs(true);
  wholePktMsg_ = Orp::makePtr<WholePktMessage>();
  wholePktMsg_->hasNotificationActiveIs(true);
}

void Mfib::mountCounterTables() {
  using Sfe::Multicast::IntfCounterTable;
  using Sfe::Multicast::MrouteCounterTable;
  auto manager = OrpSharedMem::getEntityManager(OrpSharedMem::systemNameFromEnv(), false);
  const L3::VrfName vrf(vrfName_);
  const std::string mroutePath = MrouteCounterTable::mountPath(familyOf(af_), vrf);
  const std::string intfPath = IntfCounterTable::mountPath(familyOf(af_), vrf);
  // Counters of an earlier run of the engine do not survive.
  pellMrouteCounterTable_ = mountTable<MrouteCounterTable>(
      *manager, mroutePath, "Sfe::Multicast::MrouteCounterTable", "mroute");
  pellMrouteCounterTable_->mrouteDelAll();
  pellIntfCounterTable_ =
      mountTable<IntfCounterTable>(*manager, intfPath, "Sfe::Multicast::IntfCounterTable", "intf");
  pellIntfCounterTable_->intfDelAll();
}

void Mfib::DeInit() {
  SFE_TRACE("Mfib", 6, "");
  auto emptySharedTables = [this] {
    if (pellMrouteCounterTable_) {
      pellMrouteCounterTable_->mrouteDelAll();
    }
    if (pellIntfCounterTable_) {
      pellIntfCounterTable_->intfDelAll();
    }
  };
  emptySharedTables();
  if (intfUpdateRegistered_) {
    unregisterCounterUpdate(intfCounterUpdateHandle_);
    intfUpdateRegistered_ = false;
  }
  if (mrouteUpdateRegistered_) {
    unregisterCounterUpdate(mrouteCounterUpdateHandle_);
    mrouteUpdateRegistered_ = false;
  }
  // A publication that ran in between has written again; from here on nothing does.
  emptySharedTables();

  delete noCacheMgr_;
  noCacheMgr_ = nullptr;

  SFE_TRACE("Mfib", 6, "Remove mount path for dumping state from bessd");
  if (dumpRegistered_) {
    fuseDeRegister(stateFileName());
    dumpRegistered_ = false;
  }
  fuseDeInit();

  if (notifySocket_) {
    notifySocket_->enableTxIs(false);
    notifySocket_ = nullptr;
  }
  destroyTables();
}

void Mfib::destroyTables() {
  destroyTable(mfib_);
  destroyTable(multicastIntfTable_);
  destroyTable(wrongVifTimestampTable_);
  destroyTable(sgAlertTable_);
  destroyTable(intfCounterTable_);
  destroyTable(mrouteCounterTable_);
}

// The members go in this order; the rest is plain data.
Mfib::~Mfib() {
  namespaceName_ = Orp::String<kMaxNamespaceBytes>();
  vrfName_.clear();
  pellIntfCounterTable_ = nullptr;
  pellMrouteCounterTable_ = nullptr;
  wholePktMsg_ = nullptr;
  noCacheMsg_ = nullptr;
  wrongVifMsg_ = nullptr;
  notifySocket_ = nullptr;
}

std::string Mfib::stateFileName() const {
  return std::string("/Mroute") + (ipv4() ? "4" : "6") + "_" + namespaceName_.str();
}

}  // namespace SfeModules
