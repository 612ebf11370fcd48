// Qel::Thread::YMutex and YReservation.
//
// YMutex is recursive: the owning thread may lock it again and must unlock it
// as often. It meets the standard Lockable requirements, so std::lock_guard,
// std::unique_lock and std::scoped_lock work with it.
//
// YReservation admits one holder at a time without waiting: Enter() tells the
// caller whether it is first; every Enter() must be matched by Leave(), which
// the Scope helper does. Thread-safety: both are safe from any thread.
#pragma once

#include <atomic>
#include <mutex>

#include "Qel/Time/YTime.h"

namespace Qel::Thread {

class YMutex {
 public:
  YMutex() = default;
  YMutex(const YMutex&) = delete;
  YMutex& operator=(const YMutex&) = delete;

  void Lock() { mutex_.lock(); }
  void Unlock() { mutex_.unlock(); }
  // Waits up to `wait` (zero: not at all; Infinity: for ever). Returns true
  // when the lock is now held.
  bool TryLock(Time::YDuration wait);

  // Standard Lockable spelling.
  void lock() { Lock(); }
  void unlock() { Unlock(); }
  bool try_lock() { return mutex_.try_lock(); }

 private:
  std::recursive_timed_mutex mutex_;
};

// Locks a YMutex with TryLock(zero) and raises code 145 under log type 15
// (function "TryLock") when it is busy; unlocks on destruction.
class YTryLockGuard {
 public:
  explicit YTryLockGuard(YMutex& mutex);
  ~YTryLockGuard() { mutex_.Unlock(); }
  YTryLockGuard(const YTryLockGuard&) = delete;
  YTryLockGuard& operator=(const YTryLockGuard&) = delete;

 private:
  YMutex& mutex_;
};

class YReservation {
 public:
  // Increments the counter; true when it was zero (the caller is the only
  // holder). Whatever it returns, the caller must call Leave() once.
  bool Enter() { return count_.fetch_add(1) == 0; }
  void Leave() { count_.fetch_sub(1); }
  unsigned int GetCount() const { return count_.load(); }

  // Enter on construction, Leave on destruction.
  class Scope {
   public:
    explicit Scope(YReservation& r) : r_(r), first_(r.Enter()) {}
    ~Scope() { r_.Leave(); }
    bool IsFirst() const { return first_; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    YReservation& r_;
    bool first_;
  };

 private:
  std::atomic<unsigned int> count_{0};
};

}  // namespace Qel::Thread
