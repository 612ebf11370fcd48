#pragma once
// Counters since the service started, readable through GET /api/v1/stats: the
// service-wide ones (only for the operator credential) and each account's own (for that
// account). Lock-free to bump from any thread; ofAccount() takes a short lock.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace zarnu::cloud {

/// What one account did since the service started. Nothing here depends on what other
/// accounts stored.
struct AccountStats {
    std::atomic<std::uint64_t> requests{0};
    std::atomic<std::uint64_t> partsReceived{0};
    std::atomic<std::uint64_t> bytesReceived{0};
    std::atomic<std::uint64_t> partsRejected{0};
    std::atomic<std::uint64_t> partsSent{0};
    std::atomic<std::uint64_t> bytesSent{0};
    std::atomic<std::uint64_t> filesCreated{0};
    std::atomic<std::uint64_t> logins{0};
};

struct Stats {
    std::atomic<std::uint64_t> requests{0};
    std::atomic<std::uint64_t> partsReceived{0};
    std::atomic<std::uint64_t> bytesReceived{0};
    std::atomic<std::uint64_t> partsStored{0};
    std::atomic<std::uint64_t> bytesStored{0};
    std::atomic<std::uint64_t> partsRejected{0};
    std::atomic<std::uint64_t> partsSent{0};
    std::atomic<std::uint64_t> bytesSent{0};
    std::atomic<std::uint64_t> filesCreated{0};
    std::atomic<std::uint64_t> logins{0};
    std::atomic<std::uint64_t> loginsFailed{0};
    std::atomic<std::uint64_t> loginsThrottled{0};

    /// The account's counters, made on first use; the reference stays valid as long as
    /// this object.
    AccountStats& ofAccount(std::int64_t account) {
        std::lock_guard lock(accountsMutex_);
        auto& slot = accounts_[account];
        if (!slot) slot = std::make_unique<AccountStats>();
        return *slot;
    }

private:
    std::mutex accountsMutex_;
    std::unordered_map<std::int64_t, std::unique_ptr<AccountStats>> accounts_;
};

}  // namespace zarnu::cloud
