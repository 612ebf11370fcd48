// Token lifetime and cap, account roles, and the login throttle's policy: the parts
// whose behaviour depends on time, driven here with explicit clocks.

#include "LoginThrottle.h"
#include "StoreFixture.h"

#include <string>

using namespace zarnu::cloud;
using zarnu::cloud::test::StoreFixture;

namespace {

constexpr std::int64_t kLifetime = 1000;
constexpr std::int64_t kRefresh = 100;

std::string hashOf(int i) { return std::string(32, static_cast<char>('a' + i)); }

}  // namespace

using Tokens = StoreFixture;

TEST_F(Tokens, UseKeepsATokenAliveAndDisuseExpiresIt) {
    store->addToken(hashOf(0), alice, 10'000);
    // Used within its lifetime, again and again: each use past the refresh time moves
    // its expiry on.
    std::int64_t now = 10'000;
    for (int i = 0; i < 5; ++i) {
        now += kLifetime - 1;
        EXPECT_EQ(store->useToken(hashOf(0), now, kLifetime, kRefresh), alice) << "use " << i;
    }
    // A use inside the refresh time is not written: the expiry stays where the last
    // written use put it.
    EXPECT_EQ(store->useToken(hashOf(0), now + kRefresh, kLifetime, kRefresh), alice);
    EXPECT_FALSE(store->useToken(hashOf(0), now + kLifetime, kLifetime, kRefresh));
    // Expired means gone: even a clock going back does not revive it.
    EXPECT_FALSE(store->useToken(hashOf(0), now, kLifetime, kRefresh));
    EXPECT_FALSE(store->accountByToken(hashOf(0)));
}

TEST_F(Tokens, CapKeepsTheMostRecentlyUsedAndSweepRemovesStaleOnes) {
    for (int i = 0; i < 5; ++i) store->addToken(hashOf(i), alice, 1000 + i);
    store->addToken(hashOf(9), bob, 1000);
    ASSERT_TRUE(store->useToken(hashOf(0), 1500, kLifetime, kRefresh));  // the oldest, used last
    store->addToken(hashOf(5), alice, 1000);  // just made, in a second others share
    store->trimTokens(alice, 4, hashOf(5));
    EXPECT_TRUE(store->accountByToken(hashOf(5)));
    EXPECT_TRUE(store->accountByToken(hashOf(0)));
    EXPECT_FALSE(store->accountByToken(hashOf(1)));
    EXPECT_FALSE(store->accountByToken(hashOf(2)));
    EXPECT_TRUE(store->accountByToken(hashOf(3)));
    EXPECT_TRUE(store->accountByToken(hashOf(4)));
    EXPECT_TRUE(store->accountByToken(hashOf(9)));  // other accounts keep theirs

    EXPECT_EQ(store->removeTokensUnusedSince(1004), 3u);  // hashOf(3), hashOf(5) and bob's
    EXPECT_TRUE(store->accountByToken(hashOf(0)));
    EXPECT_TRUE(store->accountByToken(hashOf(4)));
    EXPECT_FALSE(store->accountByToken(hashOf(9)));
}

TEST_F(Tokens, RolesAreGrantedAndWithdrawnPerAccount) {
    EXPECT_FALSE(store->hasRole(alice, "build"));
    store->setRole(alice, "build", true);
    store->setRole(alice, "build", true);
    EXPECT_TRUE(store->hasRole(alice, "build"));
    EXPECT_FALSE(store->hasRole(bob, "build"));
    EXPECT_FALSE(store->hasRole(alice, "other"));
    store->setRole(alice, "build", false);
    EXPECT_FALSE(store->hasRole(alice, "build"));
}

TEST(LoginThrottle, WaitsGrowAfterTheFreeFailuresAndSuccessClearsTheUser) {
    using namespace std::chrono_literals;
    LoginThrottle throttle;
    auto now = LoginThrottle::Clock::time_point{} + 1000h;
    for (unsigned i = 0; i < LoginThrottle::kPerUser.freeFailures; ++i) {
        EXPECT_EQ(throttle.secondsToWait("u", "a1", now), 0) << i;
        throttle.failed("u", "a1", now);
    }
    // The next attempt waits 1 s, then 2 s, then 4 s: from another address too.
    for (std::int64_t wait : {1, 2, 4}) {
        EXPECT_EQ(throttle.secondsToWait("u", "a2", now), wait);
        now += std::chrono::seconds(wait);
        EXPECT_EQ(throttle.secondsToWait("u", "a2", now), 0);
        throttle.failed("u", "a2", now);
    }
    EXPECT_EQ(throttle.secondsToWait("other", "a1", now), 0);
    throttle.succeeded("u");
    EXPECT_EQ(throttle.secondsToWait("u", "a1", now), 0);

    // The wait never exceeds the cap, and an hour without failures forgets them.
    for (int i = 0; i < 40; ++i) throttle.failed("u", "a3", now);
    EXPECT_EQ(throttle.secondsToWait("u", "a4", now),
              std::chrono::duration_cast<std::chrono::seconds>(LoginThrottle::kPerUser.maxWait).count());
    EXPECT_GT(throttle.secondsToWait("x", "a3", now), 0);  // the address is throttled too
    for (int i = 0; i < 25; ++i) throttle.failed("y" + std::to_string(i), "2001:db8:1:2::" + std::to_string(i + 1), now);
    EXPECT_GT(throttle.secondsToWait("z", "2001:db8:1:2:ffff::9", now), 0);  // the same /64
    EXPECT_EQ(throttle.secondsToWait("z", "2001:db8:1:3::1", now), 0);
    EXPECT_EQ(throttle.secondsToWait("z", "192.0.2.1", now), 0);
    now += LoginThrottle::kForgetAfter;
    EXPECT_EQ(throttle.secondsToWait("u", "a3", now), 0);
}
