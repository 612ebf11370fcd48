// CloudSync::YSenderLimiter: how many discovery packets an engine reads, per
// sender and in all.
//
// Each sender address has a bucket of kBurst packets refilled at kPerSecond;
// all senders together share a bucket ten times larger, so spoofed floods
// from many addresses are bounded too. At most kMaxSenders addresses are
// tracked; when that many are, the longest-silent one is dropped. Admit()
// answers whether to read a packet; a sender that has just gone over its
// limit is reported once through `firstRefusal` (for one log line) until it
// behaves again.
//
// Thread-safety: none; one receiving thread uses it.
#pragma once

#include <chrono>
#include <map>

#include "Qel/YString.h"

namespace CloudSync {

class YSenderLimiter {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr double kPerSecond = 20;
  static constexpr double kBurst = 40;
  static constexpr double kAllPerSecond = 10 * kPerSecond;
  static constexpr double kAllBurst = 10 * kBurst;
  static constexpr size_t kMaxSenders = 1024;

  YSenderLimiter();

  // True when the packet from `sender` may be read. `firstRefusal` is set when
  // this refusal starts a run of refusals for that sender.
  bool Admit(const Qel::YString& sender, Clock::time_point now, bool* firstRefusal);
  size_t TrackedSenders() const { return senders_.size(); }

 private:
  struct Bucket {
    double tokens = 0;
    Clock::time_point last;
    bool refusing = false;
  };
  static bool Take(Bucket& bucket, double perSecond, double burst, Clock::time_point now);

  Bucket all_;
  std::map<Qel::YString, Bucket> senders_;
};

}  // namespace CloudSync
