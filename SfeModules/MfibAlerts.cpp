// Alerts to the control plane and their rate limits.

#include <rte_byteorder.h>

#include <chrono>
#include <cstring>

#include "SfeModules/ForwardRules.h"
#include "SfeModules/Mfib.h"

namespace SfeModules {

namespace {

constexpr int64_t kNanosPerSecond = 1000000000;
constexpr double kSecondsPerNano = 1e-9;
constexpr uint32_t kInnerTableBuckets = 16;
constexpr bool kDeferredFree = true;
constexpr unsigned kMaxReviewedRoutes = 257;

std::chrono::nanoseconds seconds(uint32_t count) {
  return std::chrono::nanoseconds(count * kNanosPerSecond);
}

}  // namespace

void v4MrtNotifyMessage(Orp::Ptr<Nynet::MrtMessage> msg, uint32_t source, uint32_t group) {
  msg->sourceIs(Nynet::IpGenAddr(Nynet::IpAddr(rte_cpu_to_be_32(source))));
  msg->groupIs(Nynet::IpGenAddr(Nynet::IpAddr(rte_cpu_to_be_32(group))));
}

void v6MrtNotifyMessage(Orp::Ptr<Nynet::MrtMessage> msg,
                        const unsigned char* source,
                        const unsigned char* group) {
  msg->sourceIs(Nynet::IpGenAddr(nynetIp6Addr(source)));
  msg->groupIs(Nynet::IpGenAddr(nynetIp6Addr(group)));
}

bool Mfib::noCacheAlertLimited(uint8_t ttl) const {
  const bool noBuffering =
      noCacheMgr_->maxUnresolvedPktBuffers_.load(std::memory_order_relaxed) == 0;
  return (alertsOnLastHop(ttl) && toggleMfaWcFwdEnabled()) || noBuffering;
}

void Mfib::generateNoCacheAlert(Context* ctx,
                                const MfibKey& key,
                                Mfib_U64 iif,
                                uint8_t ttl,
                                TimePoint now) {
  if (noCacheAlertLimited(ttl) && !canSendSgAlert(key, now)) {
    notifications_.count(ctx->wid, Notification::kNoCacheSuppressed);
    return;
  }
  if (ipv4()) {
    uint32_t source = 0;
    uint32_t group = 0;
    std::memcpy(&source, key.source.data(), sizeof(source));
    std::memcpy(&group, key.group.data(), sizeof(group));
    v4MrtNotifyMessage(noCacheMsg_, rte_be_to_cpu_32(source), rte_be_to_cpu_32(group));
  } else {
    v6MrtNotifyMessage(noCacheMsg_, key.source.data(), key.group.data());
  }
  bessCounterInc(ctx->wid, noCacheCounterId_);
  notifications_.count(ctx->wid, Notification::kNoCache);
  notifySocket_->txMrtNotificationWithIntfId(noCacheMsg_, iif.value);
}

// An alert goes out when at least the interval has passed since the last one, in floating-point
// seconds. A clock that was stepped back makes the elapsed time negative: smaller than the
// interval.
bool Mfib::sgAlertDue(const MfibKey& key, TimePoint now) const {
  const TimePoint* last = sgAlertTable_->find(key);
  if (last == nullptr) {
    return true;
  }
  const int64_t elapsed = (now - *last).count();
  return static_cast<double>(elapsed) * kSecondsPerNano >=
         static_cast<double>(noCacheSuppressionTimer_.load(std::memory_order_relaxed));
}

bool Mfib::canSendSgAlert(const MfibKey& key, TimePoint now) {
  if (!sgAlertDue(key, now)) {
    return false;
  }
  sgAlertTable_->insert(key, now);
  return true;
}

// An alert goes out strictly after the interval, in integer nanoseconds, or at once when the route
// was programmed since. The times stay while the caller reads, also when a review takes them away.
bool Mfib::canAlertWrongVif(const MfibKey& key,
                            Mfib_U64 iif,
                            const MfibPvSet& entry,
                            TimePoint now,
                            const MfibPvSet* own) const {
  constexpr uint32_t kOldestNow = 1;  // seconds: the clock is asked only when it may matter
  const std::shared_ptr<AlertTimes>* perIntf = wrongVifTimestampTable_->find(key);
  if (perIntf == nullptr) {
    return true;
  }
  const TimePoint* last = (*perIntf)->find(iif.value);
  if (last == nullptr || entry.createTime >= *last) {
    return true;
  }
  const TimePoint quiet = *last + seconds(wrongVifAlertInterval_);
  if (now + seconds(kOldestNow) > quiet) {
    return Clock::now() > quiet;
  }
  if (own != nullptr) {
    own->quiet.put(iif.value, quiet - seconds(kOldestNow));
  }
  return false;
}

void Mfib::addWrongVifTimestamp(const MfibKey& key, uint64_t iif, TimePoint now) {
  std::shared_ptr<AlertTimes> times;
  if (const std::shared_ptr<AlertTimes>* found = wrongVifTimestampTable_->find(key);
      found != nullptr) {
    times = *found;
  } else {
    times = std::make_shared<AlertTimes>(kInnerTableBuckets, kDeferredFree, kInnerTableBuckets);
    wrongVifTimestampTable_->insert(key, times);
  }
  times->insert(iif, now);
}

bool Mfib::sgAlertCleanup() {
  if (sgAlertTable_ == nullptr) {
    return false;
  }
  const TimePoint cutoff =
      Clock::now() - seconds(noCacheSuppressionTimer_.load(std::memory_order_relaxed));
  bool erased = false;
  uint32_t examined = 0;
  for (auto it = sgAlertTable_->begin(); it != sgAlertTable_->end();) {
    const MfibKey& key = it.key();
    const TimePoint last = it.value();
    const auto current = it;
    ++it;
    // Within its interval an alert time is kept, unless the route has come: then nobody asks for it
    // any more.
    if (cutoff >= last || mfib_->contains(key)) {
      sgAlertTable_->eraseNode(current);
      erased = true;
    }
    if (++examined == sgAlertCleanupLimit_) {
      break;
    }
  }
  return erased;
}

namespace {

// Erases the times before `cutoff`. Returns: whether one was kept, and whether one was erased.
template <class Times>
std::pair<bool, bool> pruneTimes(Times& times, TimePoint cutoff) {
  bool kept = false;
  bool erased = false;
  for (auto it = times.begin(); it != times.end();) {
    const TimePoint last = it.value();
    const auto current = it;
    ++it;
    if (last >= cutoff) {
      kept = true;
    } else {
      times.eraseNode(current);
      erased = true;
    }
  }
  return {kept, erased};
}

}  // namespace

bool Mfib::wrongVifTimestampReview() {
  if (runTaskCount_.load(std::memory_order_relaxed) % (2 * wrongVifAlertInterval_) != 0) {
    return false;
  }
  if (wrongVifTimestampTable_ == nullptr) {
    return false;
  }
  bool erasedAny = false;
  unsigned examined = 0;
  TimePoint cutoff;
  for (auto it = wrongVifTimestampTable_->begin(); it != wrongVifTimestampTable_->end();) {
    if (examined == 0) {
      cutoff = Clock::now() - seconds(wrongVifAlertInterval_);
    }
    const std::shared_ptr<AlertTimes> times = it.value();
    const auto current = it;
    ++it;
    const auto [kept, erased] = pruneTimes(*times, cutoff);
    if (!kept) {
      wrongVifTimestampTable_->eraseNode(current);
    }
    erasedAny = erasedAny || erased || !kept;
    if (++examined == kMaxReviewedRoutes) {
      break;
    }
  }
  return erasedAny;
}

}  // namespace SfeModules
