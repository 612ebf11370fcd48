#pragma once
// Counters since the service started, readable through GET /api/v1/stats. Lock-free,
// safe to bump from any thread.

#include <atomic>
#include <cstdint>

namespace zarnu::cloud {

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
};

}  // namespace zarnu::cloud
