#include "LoginThrottle.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

namespace zarnu::cloud {

LoginThrottle::Clock::duration LoginThrottle::waitLeft(const Records& records, const std::string& key,
                                                        const Policy& policy, Clock::time_point now) {
    const auto it = records.find(key);
    if (it == records.end() || it->second.failures < policy.freeFailures) return Clock::duration::zero();
    if (now - it->second.lastFailure >= kForgetAfter) return Clock::duration::zero();
    // 1st failure past the free ones: firstWait; each further one doubles it.
    const unsigned doublings = std::min(it->second.failures - policy.freeFailures, 30u);
    const auto wait = std::min<Clock::duration>(policy.firstWait * (std::int64_t{1} << doublings), policy.maxWait);
    const auto left = it->second.lastFailure + wait - now;
    return std::max(left, Clock::duration::zero());
}

void LoginThrottle::note(Records& records, const std::string& key, Clock::time_point now) {
    if (records.size() >= kMaxTracked && !records.count(key)) {
        std::erase_if(records, [&](const auto& r) { return now - r.second.lastFailure >= kForgetAfter; });
        // Still full (a flood of names or addresses): forget arbitrary records rather
        // than refuse to track, which would let the flood lock everyone out.
        while (records.size() >= kMaxTracked) records.erase(records.begin());
    }
    Record& r = records[key];
    if (r.failures > 0 && now - r.lastFailure >= kForgetAfter) r.failures = 0;
    ++r.failures;
    r.lastFailure = now;
}

std::string LoginThrottle::addressKey(std::string_view address) {
    const std::string text(address);
    in6_addr a6{};
    if (inet_pton(AF_INET6, text.c_str(), &a6) != 1) return text;
    std::memset(a6.s6_addr + 8, 0, 8);
    char out[INET6_ADDRSTRLEN] = {};
    if (!inet_ntop(AF_INET6, &a6, out, sizeof out)) return text;
    return std::string(out) + "/64";
}

std::int64_t LoginThrottle::secondsToWait(std::string_view user, std::string_view address, Clock::time_point now) {
    std::lock_guard lock(mutex_);
    const auto left = std::max(waitLeft(users_, std::string(user), kPerUser, now),
                               waitLeft(addresses_, addressKey(address), kPerAddress, now));
    if (left <= Clock::duration::zero()) return 0;
    return std::chrono::ceil<std::chrono::seconds>(left).count();
}

void LoginThrottle::failed(std::string_view user, std::string_view address, Clock::time_point now) {
    std::lock_guard lock(mutex_);
    note(users_, std::string(user), now);
    note(addresses_, addressKey(address), now);
}

void LoginThrottle::succeeded(std::string_view user) {
    std::lock_guard lock(mutex_);
    users_.erase(std::string(user));
}

}  // namespace zarnu::cloud
