#include "Qel/Container/YCacheMap.h"

namespace Qel::Container {

YCacheBase::YCacheBase(const YString& name, Time::YDuration pruneInterval)
    : name_(name), prune_interval_(pruneInterval) {
  if (prune_interval_.IsZero()) return;
  queue_ = std::make_unique<Thread::Work::YWorkQueue>(name_);
  timer_ = std::make_unique<Thread::Work::YTimer>(*queue_, name_ + " pruner thread", prune_interval_, true,
                                                  [this] { Prune(); });
}

YCacheBase::~YCacheBase() { StopPruner(); }

void YCacheBase::Prune() {
  std::lock_guard<Thread::YMutex> lock(mutex_);
  if (!RemoveOldest() && timer_) timer_->SetWaitInterval(Time::YDuration());
}

Time::YDuration YCacheBase::GetPrunerWaitInterval() const {
  return timer_ ? timer_->GetWaitInterval() : Time::YDuration();
}

bool YCacheBase::IsPrunerPending() const { return timer_ && timer_->IsPending(); }

void YCacheBase::TouchPruner() {
  if (!timer_) return;
  queue_->Start();
  timer_->QueueTimerCall();
}

void YCacheBase::StopPruner() {
  if (timer_) timer_->Stop();
  if (queue_) queue_->Stop();
}

}  // namespace Qel::Container
