#include "Qel/Util/YThroughputTimer.h"

#include <algorithm>

#include "Qel/Log/YConsoleLogger.h"

namespace Qel::Util {

YThroughputTimer::YThroughputTimer(const YString& name, unsigned int periodMs, unsigned int samples)
    : name_(name),
      period_(std::chrono::milliseconds(std::max(1u, periodMs))),
      buckets_(std::max(1u, samples), 0) {}

void YThroughputTimer::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::fill(buckets_.begin(), buckets_.end(), 0);
  newest_period_ = 0;
  total_ = 0;
  start_ = now_();
  started_ = true;
}

uint64_t YThroughputTimer::Advance(Clock::time_point now) const {
  const uint64_t period = now > start_ ? static_cast<uint64_t>((now - start_) / period_) : 0;
  if (period > newest_period_) {
    // Periods that passed without data count as empty.
    const uint64_t stale = std::min<uint64_t>(period - newest_period_, buckets_.size());
    for (uint64_t i = 1; i <= stale; ++i) buckets_[(newest_period_ + i) % buckets_.size()] = 0;
    newest_period_ = period;
  }
  return newest_period_;
}

void YThroughputTimer::ReportData(uint64_t bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!started_) {
    start_ = now_();
    started_ = true;
  }
  const uint64_t period = Advance(now_());
  buckets_[period % buckets_.size()] += bytes;
  total_ += bytes;
}

double YThroughputTimer::RateLocked(bool average, Clock::time_point now) const {
  if (!started_ || now <= start_) return 0;
  if (average) return static_cast<double>(total_) / std::chrono::duration<double>(now - start_).count();
  const uint64_t newest = Advance(now);
  const uint64_t oldest = newest + 1 >= buckets_.size() ? newest + 1 - buckets_.size() : 0;
  uint64_t bytes = 0;
  for (uint64_t p = oldest; p <= newest; ++p) bytes += buckets_[p % buckets_.size()];
  const double seconds = std::chrono::duration<double>(now - (start_ + period_ * oldest)).count();
  return seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
}

double YThroughputTimer::GetThroughput(bool average) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return RateLocked(average, now_());
}

YString YThroughputTimer::GetThroughputSizeDisplayString(bool average) const {
  return YString(Log::FormatSize(GetThroughput(average)) + "/s");
}

uint64_t YThroughputTimer::GetTotalBytes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return total_;
}

}  // namespace Qel::Util
