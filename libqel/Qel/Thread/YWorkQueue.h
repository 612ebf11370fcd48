// Qel::Thread::Work::YWorkQueue and YTimer: a thread that runs queued work
// in order, and timers whose calls run on such a queue.
//
// A work queue owns one YThread, started lazily by the first Post (or by
// Start). Work items run one at a time in the order queued; an item that
// throws is logged (log type 43) and the queue goes on. Stop() ends the
// thread after the item in hand; items still queued are dropped. The
// destructor stops.
//
// A YTimer runs `operation` on its queue one wait interval after each
// QueueTimerCall. QueueTimerCall (re)arms it: a call already pending is
// moved to now + wait interval, so at most one call is ever pending. With the
// repeat flag, each call re-arms the timer after it returns, unless the wait
// interval is zero then (SetWaitInterval(zero) inside the operation makes the
// timer idle until the next QueueTimerCall, which restores the interval given
// at construction). A zero interval at construction means the timer never
// fires. Stop() cancels the pending call and waits for a running one to end
// (unless called from inside the operation). The destructor stops.
//
// Thread-safety: all operations may be called from any thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "Qel/Thread/YThread.h"
#include "Qel/Time/YTime.h"
#include "Qel/YString.h"

namespace Qel::Thread::Work {

class YWorkQueue {
 public:
  using Item = std::function<void()>;
  using TimePoint = std::chrono::steady_clock::time_point;

  explicit YWorkQueue(const YString& name);
  ~YWorkQueue();
  YWorkQueue(const YWorkQueue&) = delete;
  YWorkQueue& operator=(const YWorkQueue&) = delete;

  void Start();
  void Stop();
  void Post(Item item);
  // Runs `item` on the queue at `when`; returns an id for Cancel.
  uint64_t PostAt(TimePoint when, Item item);
  // Removes a pending timed item; false when it already ran or never was.
  bool Cancel(uint64_t id);
  // Number of items waiting (timed ones included).
  size_t GetPendingCount() const;
  YThread& GetThread() { return thread_; }
  const YString& GetName() const { return name_; }

 private:
  void Run();

  YString name_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Item> items_;
  std::multimap<TimePoint, std::pair<uint64_t, Item>> timed_;
  uint64_t next_id_ = 1;
  bool stopping_ = false;
  YThread thread_;
};

class YTimer {
 public:
  YTimer(YWorkQueue& queue, const YString& name, Time::YDuration interval, bool repeat,
         std::function<void()> operation);
  ~YTimer();
  YTimer(const YTimer&) = delete;
  YTimer& operator=(const YTimer&) = delete;

  void QueueTimerCall();
  void SetWaitInterval(Time::YDuration interval);
  Time::YDuration GetWaitInterval() const;
  bool IsPending() const;
  void Stop();
  const YString& GetName() const { return name_; }

 private:
  void Arm(Time::YDuration after);  // REQUIRES: state_->mutex held
  void Fire(uint64_t id);

  struct State;
  YWorkQueue& queue_;
  YString name_;
  Time::YDuration interval_;
  bool repeat_;
  std::function<void()> operation_;
  std::shared_ptr<State> state_;
};

}  // namespace Qel::Thread::Work
