#include "CloudSync/Peer/YSenderLimiter.h"

#include <algorithm>

namespace CloudSync {

YSenderLimiter::YSenderLimiter() { all_.tokens = kAllBurst; }

bool YSenderLimiter::Take(Bucket& bucket, double perSecond, double burst, Clock::time_point now) {
  const double seconds = std::chrono::duration<double>(now - bucket.last).count();
  bucket.tokens = std::min(burst, bucket.tokens + std::max(0.0, seconds) * perSecond);
  bucket.last = now;
  if (bucket.tokens < 1) return false;
  bucket.tokens -= 1;
  return true;
}

bool YSenderLimiter::Admit(const Qel::YString& sender, Clock::time_point now, bool* firstRefusal) {
  if (firstRefusal != nullptr) *firstRefusal = false;
  auto it = senders_.find(sender);
  if (it == senders_.end()) {
    if (senders_.size() >= kMaxSenders) {
      auto oldest = std::min_element(senders_.begin(), senders_.end(),
                                     [](const auto& a, const auto& b) { return a.second.last < b.second.last; });
      senders_.erase(oldest);
    }
    it = senders_.emplace(sender, Bucket{kBurst, now, false}).first;
  }
  Bucket& own = it->second;
  // The sender's own bucket first: a flooder spends its own tokens, not the
  // ones every other peer shares.
  const bool admitted = Take(own, kPerSecond, kBurst, now) && Take(all_, kAllPerSecond, kAllBurst, now);
  if (admitted) {
    own.refusing = false;
  } else if (!own.refusing) {
    own.refusing = true;
    if (firstRefusal != nullptr) *firstRefusal = true;
  }
  return admitted;
}

}  // namespace CloudSync
