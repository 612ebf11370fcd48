// Qel::Container::YCacheBase and YCacheMap<K, V, H>: a bounded map that
// forgets the least recently used entry first, and slowly on its own.
//
// Capacity bounds the entry count: inserting a new key into a full cache
// first evicts exactly one entry, the least recently used. Find and Put both
// count as use. A pruner YTimer on the cache's private work queue removes one
// least recently used entry each time it fires; every Find and Put (re)queues
// it to fire one prune interval later, and a firing on an empty cache sets
// its wait interval to zero so it idles until the next access. A zero prune
// interval disables pruning (no thread is ever started).
//
// Thread-safety: every operation takes the cache's recursive mutex, so the
// cache may be used from any number of threads and from its pruner at once.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <unordered_map>
#include <utility>

#include "Qel/Thread/YMutex.h"
#include "Qel/Thread/YWorkQueue.h"
#include "Qel/Time/YTime.h"
#include "Qel/YString.h"

namespace Qel::Container {

class YCacheBase {
 public:
  YCacheBase(const YString& name, Time::YDuration pruneInterval);
  virtual ~YCacheBase();
  YCacheBase(const YCacheBase&) = delete;
  YCacheBase& operator=(const YCacheBase&) = delete;

  virtual void Clear() = 0;
  virtual uint32_t Size() const = 0;
  virtual bool IsEmpty() const = 0;
  // Removes the least recently used entry; false when the cache is empty.
  virtual bool RemoveOldest() = 0;
  // The pruner's operation: RemoveOldest, and idle the timer when nothing was
  // removed.
  virtual void Prune();

  const YString& GetName() const { return name_; }
  Time::YDuration GetPruneInterval() const { return prune_interval_; }
  // For tests: the pruner's current wait interval (zero while idle).
  Time::YDuration GetPrunerWaitInterval() const;
  bool IsPrunerPending() const;

 protected:
  // Makes sure the pruner's thread runs and queues its next call one prune
  // interval from now. No-op when the prune interval is zero.
  void TouchPruner();
  // Stops the pruner; derived destructors call it before their members go.
  void StopPruner();

  YString name_;
  mutable Thread::YMutex mutex_;
  Time::YDuration prune_interval_;
  std::unique_ptr<Thread::Work::YWorkQueue> queue_;
  std::unique_ptr<Thread::Work::YTimer> timer_;
};

template <class K, class V, class H = std::hash<K>>
class YCacheMap : public YCacheBase {
 public:
  YCacheMap(const YString& name, uint32_t capacity, Time::YDuration pruneInterval)
      : YCacheBase(name, pruneInterval), capacity_(capacity), index_(10, H()) {
    index_.max_load_factor(1.0f);
  }
  ~YCacheMap() override { StopPruner(); }

  // (found, value): a hit makes the key the most recently used.
  std::pair<bool, V> Find(const K& key) {
    std::pair<bool, V> result{false, V()};
    {
      std::lock_guard<Thread::YMutex> lock(mutex_);
      auto it = index_.find(key);
      if (it != index_.end()) {
        list_.splice(list_.begin(), list_, it->second);
        result = {true, it->second->second};
      }
    }
    TouchPruner();
    return result;
  }

  void Put(const K& key, const V& value) {
    {
      std::lock_guard<Thread::YMutex> lock(mutex_);
      auto it = index_.find(key);
      if (it != index_.end()) {
        it->second->second = value;
        list_.splice(list_.begin(), list_, it->second);
      } else {
        if (capacity_ == 0) return;
        if (count_ >= capacity_) RemoveOldest();
        list_.emplace_front(key, value);
        index_.emplace(key, list_.begin());
        ++count_;
      }
    }
    TouchPruner();
  }

  void Clear() override {
    std::lock_guard<Thread::YMutex> lock(mutex_);
    list_.clear();
    index_.clear();
    count_ = 0;
  }
  uint32_t Size() const override {
    std::lock_guard<Thread::YMutex> lock(mutex_);
    return count_;
  }
  bool IsEmpty() const override { return Size() == 0; }
  bool RemoveOldest() override {
    std::lock_guard<Thread::YMutex> lock(mutex_);
    if (list_.empty()) return false;
    index_.erase(list_.back().first);
    list_.pop_back();
    --count_;
    return true;
  }
  uint32_t GetCapacity() const { return capacity_; }

 private:
  using Entry = std::pair<K, V>;
  uint32_t capacity_;
  std::list<Entry> list_;  // most recently used first
  std::unordered_map<K, typename std::list<Entry>::iterator, H> index_;
  uint32_t count_ = 0;
};

}  // namespace Qel::Container
