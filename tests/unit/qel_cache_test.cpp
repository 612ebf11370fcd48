// The cache map, the timers under its pruner, and regular expressions.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <thread>

#include "Qel/Container/YCacheMap.h"
#include "Qel/Match/RegExp.h"
#include "Qel/Thread/YMutex.h"
#include "Qel/Thread/YThread.h"
#include "Qel/Thread/YWorkQueue.h"
#include "qel_test_support.h"

namespace {

using Qel::YString;
using Qel::Time::YDuration;
using Cache = Qel::Container::YCacheMap<YString, int>;

// Polls `done` until it holds or five seconds pass (the deadline is generous:
// the assertions are about what happens, not how fast).
template <class F>
bool Eventually(F done) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

YString Key(int i) { return "/home/user/Zarnu/file-" + std::to_string(i); }

TEST(CacheMapTest, AFullCacheEvictsTheLeastRecentlyUsedEntry) {
  Cache cache("YCacheMap", 1024, YDuration());
  for (int i = 0; i < 1025; ++i) cache.Put(Key(i), i);
  EXPECT_EQ(cache.Size(), 1024u);
  EXPECT_FALSE(cache.Find(Key(0)).first);
  EXPECT_EQ(cache.Find(Key(1)), std::make_pair(true, 1));

  Cache touched("YCacheMap", 1024, YDuration());
  for (int i = 0; i < 1024; ++i) touched.Put(Key(i), i);
  EXPECT_TRUE(touched.Find(Key(0)).first);  // reading counts as use
  touched.Put(Key(1024), 1024);
  EXPECT_TRUE(touched.Find(Key(0)).first);
  EXPECT_FALSE(touched.Find(Key(1)).first);

  // Replacing a value keeps the count and makes the key the most recent.
  touched.Put(Key(2), -2);
  EXPECT_EQ(touched.Size(), 1024u);
  touched.Put(Key(2000), 0);
  EXPECT_EQ(touched.Find(Key(2)), std::make_pair(true, -2));
  EXPECT_FALSE(touched.Find(Key(3)).first);
}

TEST(CacheMapTest, ThePrunerForgetsOneEntryPerFiringThenIdlesUntilTheNextAccess) {
  Cache cache("YCacheMap", 16, YDuration::Milliseconds(5));
  for (int i = 0; i < 4; ++i) cache.Put(Key(i), i);
  ASSERT_TRUE(Eventually([&] { return cache.IsEmpty() && !cache.IsPrunerPending(); }));
  // The firing that found nothing left the timer idle.
  EXPECT_TRUE(cache.GetPrunerWaitInterval().IsZero());

  cache.Put(Key(9), 9);
  EXPECT_EQ(cache.GetPrunerWaitInterval(), YDuration::Milliseconds(5));
  ASSERT_TRUE(Eventually([&] { return cache.IsEmpty(); }));

  // Oldest first: with a slow pruner, the newest entry outlives the others.
  Cache slow("YCacheMap", 16, YDuration::Milliseconds(60));
  slow.Put(Key(1), 1);
  slow.Put(Key(2), 2);
  ASSERT_TRUE(Eventually([&] { return slow.Size() == 1; }));
  EXPECT_TRUE(slow.Find(Key(2)).first);
}

TEST(CacheMapTest, ConcurrentUseWithThePrunerRunningKeepsTheBound) {
  Cache cache("YCacheMap", 64, YDuration::Milliseconds(1));
  std::atomic<bool> overflow{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&cache, &overflow, t] {
      for (int i = 0; i < 5000; ++i) {
        cache.Put(Key((i * 7 + t) % 200), i);
        cache.Find(Key(i % 200));
        if (i % 997 == 0) cache.Clear();
        if (cache.Size() > 64) overflow = true;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_FALSE(overflow.load());
}

TEST(WorkQueueTest, ItemsRunInOrderAndAFailingItemDoesNotStopTheQueue) {
  Qel::Thread::Work::YWorkQueue queue("test queue");
  std::mutex mutex;
  std::vector<int> order;
  for (int i = 0; i < 5; ++i) {
    queue.Post([&, i] {
      if (i == 2) QEL_RAISE(43, 1, "item fails", "test", "Item");
      std::lock_guard<std::mutex> lock(mutex);
      order.push_back(i);
    });
  }
  ASSERT_TRUE(Eventually([&] { return queue.GetPendingCount() == 0 && order.size() == 4; }));
  EXPECT_EQ(order, (std::vector<int>{0, 1, 3, 4}));
}

TEST(TimerTest, RepeatingTimersRearmUntilIdledAndRequeueingMovesThePendingCall) {
  Qel::Thread::Work::YWorkQueue queue("timers");
  std::atomic<int> calls{0};
  std::unique_ptr<Qel::Thread::Work::YTimer> timer;
  timer = std::make_unique<Qel::Thread::Work::YTimer>(queue, "t", YDuration::Milliseconds(2), true, [&] {
    if (++calls == 3) timer->SetWaitInterval(YDuration());
  });
  timer->QueueTimerCall();
  ASSERT_TRUE(Eventually([&] { return calls == 3 && !timer->IsPending(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(calls.load(), 3) << "an idle timer must not fire";

  // A long interval re-queued keeps one pending call; Stop cancels it.
  std::atomic<int> late{0};
  Qel::Thread::Work::YTimer slow(queue, "slow", YDuration::Seconds(30), false, [&] { ++late; });
  slow.QueueTimerCall();
  slow.QueueTimerCall();
  EXPECT_TRUE(slow.IsPending());
  EXPECT_EQ(queue.GetPendingCount(), 1u);
  slow.Stop();
  EXPECT_FALSE(slow.IsPending());
  EXPECT_EQ(late.load(), 0);
}

TEST(ThreadTest, TerminationRequestsEndSleepsAndRaiseFromTerminateCheck) {
  std::atomic<bool> woke_early{false};
  std::atomic<unsigned int> code{0};
  Qel::Thread::YThread thread("sleeper", [&] {
    woke_early = !qel_sleep(60000);
    try {
      Qel::Thread::TerminateCheck();
    } catch (const Qel::Exception::YError& e) {
      code = e.GetCcode();
    }
  });
  thread.Start();
  thread.RequestTermination();
  thread.Join();
  EXPECT_TRUE(woke_early.load());
  EXPECT_EQ(code.load(), Qel::Thread::kTerminationRequested);
  EXPECT_TRUE(qel_sleep(1)) << "the main thread has no request pending";

  Qel::Thread::YMutex mutex;
  std::thread holder([&] {
    mutex.Lock();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    mutex.Unlock();
  });
  ASSERT_TRUE(Eventually([&] { return !mutex.try_lock() || (mutex.unlock(), false); }));
  EXPECT_FALSE(mutex.TryLock(YDuration::Milliseconds(20)));
  EXPECT_EQ(qel_test::Raised([&] { Qel::Thread::YTryLockGuard guard(mutex); }).GetCcode(), 145u);
  holder.join();
  EXPECT_TRUE(mutex.TryLock(YDuration()));
  EXPECT_TRUE(mutex.TryLock(YDuration())) << "the mutex is recursive";
  mutex.Unlock();
  mutex.Unlock();
}

TEST(RegExpTest, PatternsMatchWholeNamesAndBadPatternsAreNamed) {
  EXPECT_TRUE(Qel::Match::RegExp("CSM_PEERPAK", "CSM_PEER.*", false));
  EXPECT_FALSE(Qel::Match::RegExp("CSM_PEERPAK", "CSM_PEER", false));
  EXPECT_TRUE(Qel::Match::RegExp("CSM_ova", "csm_OVA", false));
  EXPECT_FALSE(Qel::Match::RegExp("CSM_ova", "csm_OVA", true));
  const Qel::Exception::YError e = qel_test::Raised([] { Qel::Match::RegExp("x", "CSM_(", false); });
  EXPECT_EQ(e.GetCcode(), 55u);
  EXPECT_NE(e.GetInfo().find("CSM_("), std::string::npos);
}

}  // namespace
