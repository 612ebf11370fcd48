#pragma once
// The parts that uploads in flight are storing: pinned from before their bytes are
// written until the account's hold on them is recorded, so that the collector never
// removes a part between the two. Thread-safe.

#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace zarnu::cloud {

class PartPins {
public:
    /// Pins parts for its lifetime. Move-only.
    class Pin {
    public:
        Pin(PartPins& pins, std::vector<std::string> fingerprints) : pins_(&pins), fingerprints_(std::move(fingerprints)) {
            std::lock_guard lock(pins_->mutex_);
            for (const auto& fp : fingerprints_) pins_->count_[fp]++;
        }
        Pin(Pin&& other) noexcept : pins_(other.pins_), fingerprints_(std::move(other.fingerprints_)) {
            other.pins_ = nullptr;
        }
        Pin(const Pin&) = delete;
        Pin& operator=(const Pin&) = delete;
        Pin& operator=(Pin&&) = delete;
        ~Pin() {
            if (!pins_) return;
            std::lock_guard lock(pins_->mutex_);
            for (const auto& fp : fingerprints_)
                if (--pins_->count_[fp] == 0) pins_->count_.erase(fp);
        }

    private:
        PartPins* pins_;
        std::vector<std::string> fingerprints_;
    };

    Pin pin(std::vector<std::string> fingerprints) { return Pin(*this, std::move(fingerprints)); }

    /// Runs `action` unless the part is pinned, with new pins held off until it returns;
    /// returns whether it ran.
    bool ifUnpinned(const std::string& fingerprint, const std::function<void()>& action) {
        std::lock_guard lock(mutex_);
        if (count_.count(fingerprint)) return false;
        action();
        return true;
    }

private:
    std::mutex mutex_;
    std::unordered_map<std::string, std::size_t> count_;
};

}  // namespace zarnu::cloud
