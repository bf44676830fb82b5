// What would become of a packet now, step by step in the order of the forwarding rules. The steps
// ask what the packet path asks (ForwardRules.h, Mfib::lookup, the alerts' limits) and change
// nothing.

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>
#include <vector>

#include "Bess/StateTable.h"
#include "SfeModules/AddressText.h"
#include "SfeModules/ForwardRules.h"
#include "SfeModules/Mfib.h"
#include "SfeModules/MfibStates.h"

namespace SfeModules {

namespace {

constexpr unsigned long kDefaultTtl = 64;
constexpr unsigned long kDefaultLength = 128;
constexpr unsigned long kMaxLength = 65535;
constexpr const char* kUsage = "SRC GROUP INTF [ttl=N] [len=N] [gate_select=N]";

[[noreturn]] void refuse(const std::string& what) {
  throw std::system_error(EINVAL, std::generic_category(), what);
}

// A native packet that might come.
struct Arrival {
  MfibKey key;
  Nynet::IntfId intf;
  uint8_t ttl = 0;
  uint8_t gateSelect = 0;
  size_t length = 0;
};

AddrBytes addressOf(const std::string& text, bool ipv4) {
  AddrBytes bytes{};
  if (inet_pton(ipv4 ? AF_INET : AF_INET6, text.c_str(), bytes.data()) != 1) {
    refuse("'" + text + "' is no " + (ipv4 ? "IPv4" : "IPv6") + " address");
  }
  return bytes;
}

Arrival arrivalOf(const std::string& arg, bool ipv4) {
  const bess::StateArgs args(arg, 3, {"ttl", "len", "gate_select"}, kUsage);
  Arrival arrival;
  arrival.key.source = addressOf(args.word(0), ipv4);
  arrival.key.group = addressOf(args.word(1), ipv4);
  const auto intf = Nynet::IntfId::parse(args.word(2));
  if (!intf) {
    refuse("'" + args.word(2) + "' is no interface name");
  }
  arrival.intf = *intf;
  arrival.ttl = static_cast<uint8_t>(args.number("ttl", kDefaultTtl, UINT8_MAX));
  arrival.gateSelect = static_cast<uint8_t>(args.number("gate_select", 0, UINT8_MAX));
  arrival.length = args.number("len", kDefaultLength, kMaxLength);
  return arrival;
}

std::string intfText(Nynet::IntfId id) {
  return id.isNone() ? "no interface" : id.stringValue();
}

// The rows, and at the end the counters that were named on the way.
class Story {
 public:
  void ok(const char* step, const std::string& detail) { table_.row(step, "ok", detail); }
  void no(const char* step, const std::string& detail) { table_.row(step, "no", detail); }
  void info(const char* step, const std::string& detail) { table_.row(step, "info", detail); }
  void counts(const std::string& counter) {
    if (std::find(counters_.begin(), counters_.end(), counter) == counters_.end()) {
      counters_.push_back(counter);
    }
  }
  // Told when everything else is; its counter comes before the others.
  void ends(bool passedOn, const std::string& words, const std::string& counter) {
    passedOn_ = passedOn;
    fate_ = words;
    counters_.insert(counters_.begin(), counter);
  }
  std::string take() {
    table_.row("fate", passedOn_ ? "ok" : "no", fate_);
    for (const std::string& counter : counters_) {
      info("counter", counter);
    }
    return table_.take();
  }

 private:
  bess::StateTable table_{{"step", "result", "detail"}};
  std::vector<std::string> counters_;
  bool passedOn_ = false;
  std::string fate_;
};

}  // namespace

class MfibExplain::Walk {
 public:
  Walk(const Mfib& mfib, const Arrival& arrival)
      : mfib_(mfib), arrival_(arrival), now_(Clock::now()) {}

  std::string run() {
    instance();
    countIn("packets_in");
    countIn("bytes_in");
    if (headers() && destination() && interface()) {
      const Mfib::LookupResult match = mfib_.lookup(arrival_.key, {arrival_.intf.value()});
      if (match.status == Mfib::Match::kNone) {
        missingRoute();
      } else {
        route(match);
      }
    }
    return story_.take();
  }

 private:
  std::string keyText(const MfibKey& key) const {
    const bool wildcard = key.source == AddrBytes{};
    return "(" + (wildcard ? "*" : numericAddr(key.source.data(), mfib_.ipv4())) + "," +
           numericAddr(key.group.data(), mfib_.ipv4()) + ")";
  }
  std::string flow() const { return keyText(arrival_.key); }

  void countIntf(Nynet::IntfId id, const std::string& field) {
    story_.counts("interface " + id.stringValue() + " " + field);
  }
  void countIn(const std::string& field) { countIntf(arrival_.intf, field); }
  void countRoute(const std::string& field) { story_.counts("route " + flow() + " " + field); }

  void ends(bool passedOn, const std::string& words, Fate fate) {
    story_.ends(passedOn, words, mfib_.fates_.name(fate));
  }
  void drops(const std::string& why, Fate fate) {
    countIn("packets_dropped");
    ends(false, "dropped: " + why, fate);
  }

  void instance() {
    story_.info("instance", mfib_.name() + ": " + (mfib_.ipv4() ? "IPv4" : "IPv6") + ", VRF " +
                                mfib_.vrfName_ + ", packets " + (hasLink() ? "with" : "without") +
                                " an Ethernet header");
  }
  bool hasLink() const { return mfib_.modeFlag_ || !mfib_.ipv4(); }

  bool headers() {
    const size_t needed = (hasLink() ? kEtherLen : 0) + (mfib_.ipv4() ? kIpv4MinLen : kIpv6Len);
    if (arrival_.length >= needed) {
      return true;
    }
    story_.no("headers", std::to_string(arrival_.length) + " bytes, the headers take " +
                             std::to_string(needed));
    drops("a header is not all there", Fate::kDropCutOff);
    return false;
  }

  bool destination() {
    const AddrBytes& group = arrival_.key.group;
    const std::string text = numericAddr(group.data(), mfib_.ipv4());
    if (!isRoutableGroup(group, mfib_.ipv4())) {
      story_.no("destination", text + " is no group that routes can exist for");
      ends(true, "passed on unchanged by gate 0", Fate::kPassed);
      return false;
    }
    if (Mfib::addrArrayToGenAddr(group.data(), mfib_.af_).isLinkLocalMulticast()) {
      story_.no("destination", text + " is link-local: it stays on its link");
      drops("link-local group", Fate::kDropLinkLocal);
      return false;
    }
    story_.ok("destination", text + " is a multicast group");
    return true;
  }

  bool interface() {
    const std::string text = intfText(arrival_.intf);
    if (!admitsFrom(mfib_.multicastIntfTable_->contains(arrival_.intf.value()), false)) {
      story_.no("interface", text + " is not enabled for multicast");
      drops("its interface is not enabled for multicast", Fate::kDropNonMulticastIntf);
      return false;
    }
    story_.ok("interface", text + " is enabled for multicast");
    return true;
  }

  // Why the look-up found nothing, as far as the table tells.
  std::string missingText() const {
    if (!toggleMfaWcFwdEnabled()) {
      return "no " + flow() + "; (*,G) is not looked at: toggle MfaWcFwd is off";
    }
    MfibKey wildcard = arrival_.key;
    wildcard.source = {};
    const std::shared_ptr<MfibPvSet>* found = mfib_.mfib_->find(wildcard);
    const std::string both = "no " + flow() + "; ";
    return found == nullptr ? both + "no " + keyText(wildcard)
                            : both + keyText(wildcard) + " takes packets from " +
                                  intfText((*found)->iif) + " only";
  }

  void missingRoute() {
    story_.no("route", missingText());
    if (alertsOnLastHop(arrival_.ttl)) {
      noCache(arrival_.ttl);
    }
    const uint32_t maxHeld =
        mfib_.noCacheMgr_->maxUnresolvedPktBuffers_.load(std::memory_order_relaxed);
    switch (withoutRoute(arrival_.ttl, false, maxHeld)) {
      case WithoutRoute::kDropTtl:
        ttlTooSmall();
        return;
      case WithoutRoute::kDropNoRoute:
        drops("no route", Fate::kDropNoRoute);
        return;
      case WithoutRoute::kNotifyAndDrop:
        story_.no("cache", "packets are not held: max_unresolved_packets is 0");
        noCache(arrival_.ttl);
        drops("no route", Fate::kDropNoRoute);
        return;
      case WithoutRoute::kOfferToTheCache:
        offer();
        return;
    }
  }

  void offer() {
    const NoCachePacketManager& cache = *mfib_.noCacheMgr_;
    switch (mfib_.noCacheMgr_->roomFor(arrival_.key)) {
      case NoCachePacketManager::Room::kNoKeyMore:
        story_.no("cache", "packets of " + std::to_string(cache.entryCount()) +
                               " flows are held, and no more may be: max_unresolved_entries");
        drops("no route, and the cache of held packets is full", Fate::kDropCacheFull);
        return;
      case NoCachePacketManager::Room::kNoPacketMore:
        story_.no("cache",
                  "no further packet of " + flow() + " may be held: max_unresolved_packets");
        drops("no route, and enough packets of the flow are held", Fate::kDropCacheFull);
        return;
      case NoCachePacketManager::Room::kYes:
        break;
    }
    story_.ok("cache", "there is room for it");
    noCache(arrival_.ttl);
    countIn("packets_queued");
    countRoute("packets_queued");
    ends(true,
         "held until the route comes, for " +
             std::to_string(cache.expiryTimer_.load(std::memory_order_relaxed)) + " s at most",
         Fate::kHeld);
  }

  void told(const std::string& what, Notification kind) {
    story_.ok("notify", what);
    story_.counts(mfib_.notifications_.name(kind));
  }
  void keptBack(const std::string& what, Notification kind) {
    story_.no("notify", what);
    story_.counts(mfib_.notifications_.name(kind));
  }

  void noCache(uint8_t ttl) {
    const std::string what = "NoCache of " + flow();
    if (mfib_.noCacheAlertLimited(ttl) && !mfib_.sgAlertDue(arrival_.key, now_)) {
      keptBack(what + " is suppressed: one went out in the last " +
                   std::to_string(mfib_.noCacheSuppressionTimer_.load(std::memory_order_relaxed)) +
                   " s",
               Notification::kNoCacheSuppressed);
      return;
    }
    told(what + " goes to the control plane", Notification::kNoCache);
  }

  void wrongVif(const MfibPvSet& entry) {
    const std::string what = "WrongVif of " + flow() + " on " + intfText(arrival_.intf);
    if (!mfib_.canAlertWrongVif(arrival_.key, {arrival_.intf.value()}, entry)) {
      keptBack(what + " is suppressed: one went out in the last " +
                   std::to_string(mfib_.wrongVifAlertInterval_) + " s",
               Notification::kWrongVifSuppressed);
      return;
    }
    countRoute("wrong_vif");
    told(what + " goes to the control plane", Notification::kWrongVif);
  }

  void route(const Mfib::LookupResult& match) {
    const MfibPvSet& entry = *match.entry;
    story_.ok("route", keyText(match.key));
    if (match.status == Mfib::Match::kWildcard) {
      noCache(1);  // with the limits of a last hop
    }
    countRoute("packets_in");
    countRoute("bytes_in");
    if (!incoming(entry)) {
      return;
    }
    if (!ttlAllowsForwarding(arrival_.ttl)) {
      ttlTooSmall();
      return;
    }
    story_.ok("ttl", std::to_string(arrival_.ttl));
    if (entry.oifRegister) {
      told("the whole packet goes to the control plane", Notification::kWholePkt);
    }
    outgoing(entry);
    if (looksWrongAfterForwarding(entry, false)) {
      wrongVif(entry);
    }
  }

  void ttlTooSmall() {
    story_.no("ttl", std::to_string(arrival_.ttl) + ": it may not leave the router");
    drops("TTL too small", Fate::kDropTtl);
  }

  bool incoming(const MfibPvSet& entry) {
    const std::string wanted = intfText(entry.iif) + (entry.iifRegister ? " (register)" : "");
    if (checkIif(entry, arrival_.intf.value(), false, mfib_.modeFlag_) == IifCheck::kRight) {
      story_.ok("iif", wanted);
      return true;
    }
    std::string text = "the route takes packets from " + wanted;
    // Stored and shown; no packet is treated otherwise for it.
    if (arrival_.intf == entry.iifFrr) {
      text += "; " + intfText(arrival_.intf) + " is its iif_frr, which forwarding does not use";
    } else if (arrival_.intf == entry.fastdrop) {
      text += "; " + intfText(arrival_.intf) + " is its fastdrop, which forwarding does not use";
    }
    story_.no("iif", text);
    wrongVif(entry);
    countRoute("packets_dropped");
    drops("wrong incoming interface", Fate::kDropWrongIntf);
    return false;
  }

  void outgoing(const MfibPvSet& entry) {
    if (entry.toCpu) {
      story_.info("to_cpu", "asked for; forwarding does not use it");
    }
    if (entry.numOifs == 0) {
      story_.no("oif", "the route has no outgoing interface");
      countRoute("packets_dropped");
      drops("the route has no outgoing interface", Fate::kDropNoOifs);
      return;
    }
    const uint8_t gateSelect = mfib_.modeFlag_ ? arrival_.gateSelect : uint8_t{0};
    std::string leaves;
    bool firstLeaves = true;
    for (uint32_t i = 0; i < entry.numOifs; ++i) {
      const std::string intf = intfText(entry.oifs()[i]);
      const auto gate = static_cast<uint16_t>(entry.oifGates()[i]);
      const std::string text = intf + " by gate " + std::to_string(gate);
      if (!permitsGate(gateSelect, gate)) {
        story_.no("oif", text + ": a packet with a gate selection leaves by gates 1 and 2 only");
        firstLeaves = firstLeaves && i != 0;
        continue;
      }
      story_.ok("oif", text);
      countIntf(entry.oifs()[i], "packets_out");
      countIntf(entry.oifs()[i], "bytes_out");
      if (i > 0) {
        story_.counts(mfib_.fates_.name(Fate::kCopied));
      }
      leaves += (leaves.empty() ? "" : ", ") + intf;
    }
    rewrite();
    forwarded(leaves, firstLeaves);
  }

  void rewrite() {
    story_.info("rewrite", std::string(mfib_.ipv4() ? "TTL " : "hop limit ") +
                               std::to_string(arrival_.ttl - 1) +
                               (hasLink() ? ", addresses of the link"
                                          : ", IP header first, marked for a link header"));
  }

  void forwarded(const std::string& leaves, bool firstLeaves) {
    if (firstLeaves) {
      ends(true, "forwarded to " + leaves, Fate::kForwarded);
    } else if (leaves.empty()) {
      drops("no gate of the route is allowed for it", Fate::kDropGate);
    } else {
      drops("the first gate of the route is not allowed for it; copies go to " + leaves,
            Fate::kDropGate);
    }
  }

  const Mfib& mfib_;
  const Arrival arrival_;
  const TimePoint now_;
  Story story_;
};

std::string MfibExplain::text(const Mfib& mfib, const std::string& arg) {
  return Walk(mfib, arrivalOf(arg, mfib.ipv4())).run();
}

}  // namespace SfeModules
