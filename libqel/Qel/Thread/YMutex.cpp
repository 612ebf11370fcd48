#include "Qel/Thread/YMutex.h"

#include "Qel/Exception/YError.h"

namespace Qel::Thread {

namespace {
constexpr unsigned int kLogShell = 15;
constexpr unsigned int kLockBusy = 145;
}  // namespace

bool YMutex::TryLock(Time::YDuration wait) {
  if (wait.IsZero()) return mutex_.try_lock();
  if (wait.IsInfinite()) {
    mutex_.lock();
    return true;
  }
  return mutex_.try_lock_for(wait.ToChrono());
}

YTryLockGuard::YTryLockGuard(YMutex& mutex) : mutex_(mutex) {
  if (!mutex_.TryLock(Time::YDuration())) QEL_RAISE(kLogShell, kLockBusy, "", "libqel/Qel/Thread/YMutex", "TryLock");
}

}  // namespace Qel::Thread
