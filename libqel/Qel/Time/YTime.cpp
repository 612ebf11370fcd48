#include "Qel/Time/YTime.h"

namespace Qel::Time {

YDuration GetClockTime(ClockType clock) {
  if (clock == kClockMonotonic) return YDuration(std::chrono::steady_clock::now().time_since_epoch());
  return YDuration(std::chrono::system_clock::now().time_since_epoch());
}

}  // namespace Qel::Time
