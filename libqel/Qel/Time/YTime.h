// Qel::Time: durations and clocks.
//
// YDuration is a signed span of time with millisecond-or-finer resolution and
// one special value, Infinity(), that means "no limit" wherever a wait takes a
// duration. Zero means "do not wait". Thread-safety: values.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>

namespace Qel::Time {

class YDuration {
 public:
  constexpr YDuration() = default;
  constexpr explicit YDuration(std::chrono::nanoseconds span) : ns_(span.count()) {}

  static constexpr YDuration Microseconds(int64_t n) { return YDuration(std::chrono::microseconds(n)); }
  static constexpr YDuration Milliseconds(int64_t n) { return YDuration(std::chrono::milliseconds(n)); }
  static constexpr YDuration Seconds(int64_t n) { return YDuration(std::chrono::seconds(n)); }
  static constexpr YDuration Minutes(int64_t n) { return YDuration(std::chrono::minutes(n)); }
  static constexpr YDuration Infinite() { return YDuration(std::chrono::nanoseconds(kInfiniteNs)); }

  constexpr bool IsZero() const { return ns_ == 0; }
  constexpr bool IsInfinite() const { return ns_ == kInfiniteNs; }
  // Whole units, rounded towards zero; Infinity gives the largest int64.
  constexpr int64_t GetMilliseconds() const { return IsInfinite() ? kInfiniteNs : ns_ / 1000000; }
  constexpr int64_t GetMicroseconds() const { return IsInfinite() ? kInfiniteNs : ns_ / 1000; }
  constexpr int64_t GetSeconds() const { return IsInfinite() ? kInfiniteNs : ns_ / 1000000000; }
  constexpr std::chrono::nanoseconds ToChrono() const { return std::chrono::nanoseconds(ns_); }

  // Sums saturate at Infinity; Infinity minus anything stays Infinity.
  constexpr YDuration operator+(YDuration other) const {
    if (IsInfinite() || other.IsInfinite()) return Infinite();
    return YDuration(std::chrono::nanoseconds(ns_ + other.ns_));
  }
  constexpr YDuration operator-(YDuration other) const {
    if (IsInfinite()) return Infinite();
    return YDuration(std::chrono::nanoseconds(ns_ - other.ns_));
  }
  constexpr YDuration operator/(int64_t divisor) const {
    return IsInfinite() ? Infinite() : YDuration(std::chrono::nanoseconds(ns_ / divisor));
  }
  YDuration& operator+=(YDuration other) { return *this = *this + other; }
  constexpr auto operator<=>(const YDuration&) const = default;

 private:
  static constexpr int64_t kInfiniteNs = std::numeric_limits<int64_t>::max();
  int64_t ns_ = 0;
};

// The duration that means "wait without limit".
constexpr YDuration Infinity() { return YDuration::Infinite(); }

enum ClockType : unsigned int {
  kClockRealtime = 0,   // time since the Unix epoch
  kClockMonotonic = 1,  // time since an arbitrary fixed point; never goes back
};

// The current reading of `clock` as a duration since that clock's epoch.
YDuration GetClockTime(ClockType clock);

}  // namespace Qel::Time
