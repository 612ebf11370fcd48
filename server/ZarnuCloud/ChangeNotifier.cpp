#include "ChangeNotifier.h"

namespace zarnu::cloud {

void ChangeNotifier::notify() {
    {
        std::lock_guard lock(mutex_);
        ++generation_;
    }
    cv_.notify_all();
}

void ChangeNotifier::shutdown() {
    {
        std::lock_guard lock(mutex_);
        shutdown_ = true;
    }
    cv_.notify_all();
}

bool ChangeNotifier::waitFor(const std::function<bool()>& changed, std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    while (!shutdown_) {
        // The generation is read before asking, so an announcement made while the
        // question runs (unlocked) is not missed.
        const std::uint64_t seen = generation_;
        lock.unlock();
        if (changed()) return true;
        lock.lock();
        if (!cv_.wait_until(lock, deadline, [&] { return shutdown_ || generation_ != seen; })) return false;
    }
    return false;
}

}  // namespace zarnu::cloud
