#include "SfeModules/MfibStates.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <system_error>

#include "Bess/StateTable.h"
#include "SfeModules/AddressText.h"
#include "SfeModules/Mfib.h"
#include "SfeModules/RouteWalk.h"

namespace SfeModules {

namespace {

constexpr size_t kBytesPerRoute = 128;  // what a route of a few interfaces takes

void putAddr(bess::StateTable& table, const AddrBytes& bytes, bool ipv4) {
  appendNumericAddr(table.raw(), bytes.data(), ipv4);
}

// No interface is an empty field.
void putIntf(bess::StateTable& table, Nynet::IntfId id) {
  std::string& text = table.raw();
  if (!id.isNone()) {
    id.appendTo(text);
  }
}

void putFlags(bess::StateTable& table, const MfibPvSet& entry) {
  std::string& text = table.raw();
  const char* separator = "";
  const auto flag = [&](bool set, const char* name) {
    if (set) {
      text += separator;
      text += name;
      separator = ",";
    }
  };
  flag(entry.toCpu, "to_cpu");
  flag(entry.iifRegister, "iif_register");
  flag(entry.oifRegister, "oif_register");
}

void putOifs(bess::StateTable& table, const MfibPvSet& entry) {
  std::string& text = table.raw();
  for (uint32_t i = 0; i < entry.numOifs; ++i) {
    if (i > 0) {
      text += ',';
    }
    entry.oifs()[i].appendTo(text);
    text += ':';
    std::array<char, 12> digits;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    text.append(
        digits.data(),
        std::to_chars(digits.data(), digits.data() + digits.size(), entry.oifGates()[i]).ptr);
  }
}

std::string macText(uint64_t word) {
  std::array<uint8_t, sizeof(word)> bytes{};
  std::memcpy(bytes.data(), &word, sizeof(word));
  std::string text;
  for (size_t i = 0; i < kMacLen; ++i) {
    constexpr const char* kHex = "0123456789abcdef";
    text += i == 0 ? "" : ":";
    text += kHex[bytes[i] >> 4];
    text += kHex[bytes[i] & 0xf];
  }
  return text;
}

void noArgument(const std::string& arg) {
  static_cast<void>(bess::StateArgs(arg, 0, {}, "no words"));
}

}  // namespace

std::vector<bess::State> MfibStates::of(Mfib& mfib) {
  const auto plain = [&mfib](std::string (*build)(const Mfib&)) {
    return [&mfib, build](const std::string& arg) {
      noArgument(arg);
      return build(mfib);
    };
  };
  return {
      {"routes", "The routes", plain(&MfibStates::routes)},
      {"interfaces", "The interfaces that are enabled for multicast",
       plain(&MfibStates::interfaces)},
      {"settings", "What the instance was created with and told since",
       plain(&MfibStates::settings)},
      {"cache", "The keys for which packets are held", plain(&MfibStates::cache)},
      {"explain", "What would become of a packet: SRC GROUP INTF [ttl=N] [len=N] [gate_select=N]",
       [&mfib](const std::string& arg) { return MfibExplain::text(mfib, arg); }},
      {"metrics", "Gauges and totals; routes=N adds series of at most N routes",
       [&mfib](const std::string& arg) { return MfibMetrics::text(mfib, arg); }},
  };
}

std::string MfibStates::routes(const Mfib& mfib) {
  const bool ipv4 = mfib.ipv4();
  const size_t count =
      size_t{mfib.routesByType_[Mfib::kSourceGroup]} + mfib.routesByType_[Mfib::kAnySource];
  bess::StateTable table(
      {"source", "group", "iif", "iif_frr", "notify", "fastdrop", "flags", "oifs"},
      (count + 1) * kBytesPerRoute);
  walkRoutes(*mfib.mfib_, [&table, ipv4](const MfibKey& key, const MfibPvSet& entry) {
    putAddr(table, key.source, ipv4);
    putAddr(table, key.group, ipv4);
    putIntf(table, entry.iif);
    putIntf(table, entry.iifFrr);
    putIntf(table, entry.notify);
    putIntf(table, entry.fastdrop);
    putFlags(table, entry);
    putOifs(table, entry);
    table.endRow();
  });
  return table.take();
}

std::string MfibStates::interfaces(const Mfib& mfib) {
  std::vector<Nynet::IntfId> ids;
  for (auto it = mfib.multicastIntfTable_->begin(); it != mfib.multicastIntfTable_->end(); ++it) {
    ids.emplace_back(it.key());
  }
  std::sort(ids.begin(), ids.end());
  bess::StateTable table({"intf"});
  for (const Nynet::IntfId id : ids) {
    table.row(id.stringValue());
  }
  return table.take();
}

std::string MfibStates::settings(const Mfib& mfib) {
  const NoCachePacketManager& cache = *mfib.noCacheMgr_;
  bess::StateTable table({"name", "value"});
  const auto task = [&table](const char* name, task_id_t id) {
    table.row(name, id == kInvalidTaskId ? std::string() : std::to_string(id));
  };
  table.row("vrf", mfib.vrfName_);
  table.row("vrfid", mfib.vrfId_);
  table.row("family", mfib.ipv4() ? "4" : "6");
  table.row("ethernet_mode", mfib.modeFlag_);
  table.row("max_mroute", mfib.maxMroute_);
  table.row("bridge_mac", macText(mfib.bridgeMac_.load(std::memory_order_relaxed)));
  table.row("cache_expiry_timer", cache.expiryTimer_.load(std::memory_order_relaxed));
  table.row("max_unresolved_entries",
            cache.maxUnresolvedCacheEntries_.load(std::memory_order_relaxed));
  table.row("max_unresolved_packets",
            cache.maxUnresolvedPktBuffers_.load(std::memory_order_relaxed));
  table.row("no_cache_suppression_timer",
            mfib.noCacheSuppressionTimer_.load(std::memory_order_relaxed));
  task("mfib_task", mfib.mfibTaskId_);
  task("cleanup_task", mfib.cleanupTaskId_);
  table.row("non_mcast_iif_counter", mfib.nonMcastIifCounterId_.load(std::memory_order_relaxed));
  table.row("wrong_vif_counter", mfib.wrongVifCounterId_.load(std::memory_order_relaxed));
  table.row("whole_pkt_counter", mfib.wholePktCounterId_.load(std::memory_order_relaxed));
  table.row("no_cache_counter", mfib.noCacheCounterId_.load(std::memory_order_relaxed));
  table.row("no_cache_resolved_counter",
            mfib.noCacheResolvedCounterId_.load(std::memory_order_relaxed));
  table.row("no_cache_expired_counter",
            mfib.noCacheExpiredCounterId_.load(std::memory_order_relaxed));
  table.row("toggle_mfawcfwd", toggleMfaWcFwdEnabled());
  return table.take();
}

std::string MfibStates::cache(const Mfib& mfib) {
  std::vector<NoCachePacketManager::HeldKey> keys = mfib.noCacheMgr_->heldKeys();
  std::sort(keys.begin(), keys.end(),
            [](const auto& a, const auto& b) { return a.oldest < b.oldest; });
  const TimePoint now = Clock::now();
  bess::StateTable table({"source", "group", "iif", "packets", "oldest_age_ms", "state"});
  for (const auto& held : keys) {
    putAddr(table, held.key.source, mfib.ipv4());
    putAddr(table, held.key.group, mfib.ipv4());
    std::string& iifs = table.raw();
    for (size_t i = 0; i < held.iifs.size(); ++i) {
      iifs += i == 0 ? "" : ",";
      Nynet::IntfId(held.iifs[i]).appendTo(iifs);
    }
    const auto age = std::chrono::duration_cast<std::chrono::milliseconds>(now - held.oldest);
    table.row(held.packets, std::max<int64_t>(age.count(), 0),
              held.waiting ? "waiting" : "resolved");
  }
  return table.take();
}

}  // namespace SfeModules
