// Qel::Util::YThroughputTimer: measures how fast bytes move.
//
// The meter splits time into periods of `periodMs` milliseconds and keeps the
// byte counts of the last `samples` periods. Start (re)starts it; ReportData
// adds bytes at the current time. The rate is either the average since Start
// or the recent rate over the kept periods (the window is the time from the
// start of the oldest kept period to now). Thread-safety: every operation may
// be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <vector>

#include "Qel/YString.h"

namespace Qel::Util {

class YThroughputTimer {
 public:
  using Clock = std::chrono::steady_clock;

  YThroughputTimer(const YString& name, unsigned int periodMs, unsigned int samples);

  void Start();
  void ReportData(uint64_t bytes);

  // Bytes per second: with `average` since Start, else over the recent window.
  // 0 before Start or when no time has passed.
  double GetThroughput(bool average) const;
  // The rate as a size per second, "12.34 MB/s" (Qel::Log::FormatSize).
  YString GetThroughputSizeDisplayString(bool average) const;

  uint64_t GetTotalBytes() const;
  const YString& GetName() const { return name_; }

  // Time source, for tests: the meter reads the clock only through this.
  void SetClockForTest(Clock::time_point (*now)()) { now_ = now; }

 private:
  // Moves the window so that it ends with the period holding `now`; returns
  // that period's number. REQUIRES: mutex_ held.
  uint64_t Advance(Clock::time_point now) const;
  double RateLocked(bool average, Clock::time_point now) const;

  YString name_;
  Clock::duration period_;
  mutable std::mutex mutex_;
  mutable std::vector<uint64_t> buckets_;  // ring, indexed by period number % size
  mutable uint64_t newest_period_ = 0;
  Clock::time_point start_{};
  bool started_ = false;
  uint64_t total_ = 0;
  Clock::time_point (*now_)() = &Clock::now;
};

}  // namespace Qel::Util
