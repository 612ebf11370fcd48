// Work queues and timers. Invariants: a queue's items run only on its own
// thread, one at a time; a timer has at most one pending call (state->id,
// 0 when none), and a call whose id is no longer state->id does nothing.
#include "Qel/Thread/YWorkQueue.h"

#include "Qel/Exception/YError.h"
#include "Qel/Log/YLog.h"

namespace Qel::Thread::Work {

namespace {
constexpr unsigned int kLogRuntime = 43;
}  // namespace

YWorkQueue::YWorkQueue(const YString& name) : name_(name), thread_(name, [this] { Run(); }) {}

YWorkQueue::~YWorkQueue() { Stop(); }

void YWorkQueue::Start() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = false;
  }
  thread_.Start();
}

void YWorkQueue::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    items_.clear();
    timed_.clear();
  }
  wake_.notify_all();
  thread_.RequestTermination();
  thread_.Join();
}

void YWorkQueue::Post(Item item) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return;
    items_.push_back(std::move(item));
  }
  wake_.notify_all();
  thread_.Start();
}

uint64_t YWorkQueue::PostAt(TimePoint when, Item item) {
  uint64_t id = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return 0;
    id = next_id_++;
    timed_.emplace(when, std::make_pair(id, std::move(item)));
  }
  wake_.notify_all();
  thread_.Start();
  return id;
}

bool YWorkQueue::Cancel(uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = timed_.begin(); it != timed_.end(); ++it) {
    if (it->second.first == id) {
      timed_.erase(it);
      return true;
    }
  }
  return false;
}

size_t YWorkQueue::GetPendingCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return items_.size() + timed_.size();
}

void YWorkQueue::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_ && !thread_.IsTerminationRequested()) {
    Item item;
    if (!items_.empty()) {
      item = std::move(items_.front());
      items_.pop_front();
    } else if (!timed_.empty() && timed_.begin()->first <= std::chrono::steady_clock::now()) {
      item = std::move(timed_.begin()->second.second);
      timed_.erase(timed_.begin());
    } else if (!timed_.empty()) {
      wake_.wait_until(lock, timed_.begin()->first);
      continue;
    } else {
      wake_.wait(lock);
      continue;
    }
    lock.unlock();
    try {
      item();
    } catch (const Exception::YError& e) {
      Log::GetGlobalLogger().Write(kLogRuntime, "Work item on " + name_ + " failed: " + e.GetDetailedSummary());
    } catch (const std::exception& e) {
      Log::GetGlobalLogger().Write(kLogRuntime, "Work item on " + name_ + " failed: " + e.what());
    }
    lock.lock();
  }
}

// ------------------------------------------------------------------ YTimer

struct YTimer::State {
  std::mutex mutex;
  std::condition_variable idle;
  uint64_t id = 0;             // the queue id of the pending call, 0 when none
  uint64_t generation = 0;     // changes with every arm, so a stale call does nothing
  uint64_t armed = 0;          // the generation the pending call belongs to
  Time::YDuration wait;
  bool running = false;
  bool stopped = false;
  std::thread::id runner;
};

YTimer::YTimer(YWorkQueue& queue, const YString& name, Time::YDuration interval, bool repeat,
               std::function<void()> operation)
    : queue_(queue), name_(name), interval_(interval), repeat_(repeat), operation_(std::move(operation)),
      state_(std::make_shared<State>()) {
  state_->wait = interval;
}

YTimer::~YTimer() { Stop(); }

void YTimer::Arm(Time::YDuration after) {
  if (state_->id != 0) queue_.Cancel(state_->id);
  state_->id = 0;
  if (state_->stopped || after.IsZero() || after.IsInfinite()) return;
  const uint64_t generation = ++state_->generation;
  std::weak_ptr<State> weak = state_;
  state_->armed = generation;
  state_->id = queue_.PostAt(std::chrono::steady_clock::now() + after.ToChrono(), [this, weak, generation] {
    if (auto s = weak.lock()) {
      {
        std::lock_guard<std::mutex> lock(s->mutex);
        if (s->stopped || s->armed != generation) return;
        s->id = 0;
      }
      Fire(generation);
    }
  });
}

void YTimer::Fire(uint64_t) {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->running = true;
    state_->runner = std::this_thread::get_id();
  }
  try {
    operation_();
  } catch (const Exception::YError& e) {
    Log::GetGlobalLogger().Write(kLogRuntime, "Timer " + name_ + " failed: " + e.GetDetailedSummary());
  }
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->running = false;
  state_->runner = std::thread::id();
  if (repeat_ && state_->id == 0 && !state_->stopped) Arm(state_->wait);
  state_->idle.notify_all();
}

void YTimer::QueueTimerCall() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->stopped = false;
  state_->wait = interval_;
  Arm(state_->wait);
}

void YTimer::SetWaitInterval(Time::YDuration interval) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->wait = interval;
}

Time::YDuration YTimer::GetWaitInterval() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->wait;
}

bool YTimer::IsPending() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->id != 0;
}

void YTimer::Stop() {
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->stopped = true;
  if (state_->id != 0) queue_.Cancel(state_->id);
  state_->id = 0;
  if (state_->runner == std::this_thread::get_id()) return;
  state_->idle.wait(lock, [this] { return !state_->running; });
}

}  // namespace Qel::Thread::Work
