#pragma once
// Throttles password logins, per user name and per client address: after a few failed
// attempts each further attempt must wait, twice as long after every failure, up to a
// cap. A success clears the user name's record (not the address's). IPv6 addresses count
// per /64 network (one host usually holds a whole /64). Records are
// forgotten an hour after their last failure, and at most kMaxTracked are kept.
// Thread-safe. The clock is passed in, so the policy is testable without waiting.

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace zarnu::cloud {

class LoginThrottle {
public:
    using Clock = std::chrono::steady_clock;

    struct Policy {
        unsigned freeFailures;           ///< failures allowed before attempts must wait
        std::chrono::seconds firstWait;  ///< the wait after the first failure past them
        std::chrono::seconds maxWait;
    };
    static constexpr Policy kPerUser{5, std::chrono::seconds(1), std::chrono::minutes(15)};
    static constexpr Policy kPerAddress{20, std::chrono::seconds(1), std::chrono::minutes(15)};
    static constexpr std::chrono::seconds kForgetAfter = std::chrono::hours(1);
    static constexpr std::size_t kMaxTracked = 100000;

    /// Seconds (rounded up) before an attempt for this user from this address may go
    /// ahead; 0 when it may go ahead now.
    std::int64_t secondsToWait(std::string_view user, std::string_view address, Clock::time_point now);
    void failed(std::string_view user, std::string_view address, Clock::time_point now);
    void succeeded(std::string_view user);

    /// The key an address is throttled under: an IPv4 address itself, an IPv6 address's
    /// /64 network.
    static std::string addressKey(std::string_view address);

private:
    struct Record {
        unsigned failures = 0;
        Clock::time_point lastFailure;
    };
    using Records = std::unordered_map<std::string, Record>;

    static Clock::duration waitLeft(const Records& records, const std::string& key, const Policy& policy,
                                    Clock::time_point now);
    static void note(Records& records, const std::string& key, Clock::time_point now);

    std::mutex mutex_;
    Records users_;
    Records addresses_;
};

}  // namespace zarnu::cloud
