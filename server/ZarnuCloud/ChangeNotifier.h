#pragma once
// Wakes requests that wait for an account's tree to change (long polls of the change
// feed). Waiting costs no CPU: a waiter sleeps on a condition variable until a change
// is announced, its deadline passes or the service shuts down. Thread-safe.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace zarnu::cloud {

class ChangeNotifier {
public:
    /// Announces that some account's tree changed (after the change is committed).
    void notify();
    /// Returns true as soon as `changed()` is true, false at the deadline or once
    /// shutdown() was called. `changed` is asked first, then after every announcement.
    bool waitFor(const std::function<bool()>& changed, std::chrono::steady_clock::time_point deadline);
    /// Ends every wait now and every later one at once.
    void shutdown();

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::uint64_t generation_ = 0;  // guarded by mutex_
    bool shutdown_ = false;         // guarded by mutex_
};

}  // namespace zarnu::cloud
