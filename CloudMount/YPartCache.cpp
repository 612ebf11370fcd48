#include "CloudMount/YPartCache.h"

namespace CloudMount {

YPartCache::Bytes YPartCache::Find(const Qel::YString& fingerprint) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = entries_.find(fingerprint);
  if (it == entries_.end()) {
    ++stats_.misses;
    return nullptr;
  }
  ++stats_.hits;
  order_.splice(order_.begin(), order_, it->second.place);
  return it->second.bytes;
}

bool YPartCache::Contains(const Qel::YString& fingerprint) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_.count(fingerprint) != 0;
}

void YPartCache::Put(const Qel::YString& fingerprint, Bytes bytes) {
  if (!bytes || bytes->size() > limit_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  if (entries_.count(fingerprint) != 0) return;  // the same bytes, fetched twice at once
  order_.push_front(fingerprint);
  stats_.size += bytes->size();
  ++stats_.count;
  entries_.emplace(fingerprint, Entry{std::move(bytes), order_.begin()});
  // Invariant after this loop: stats_.size <= limit_.
  while (stats_.size > limit_) {
    auto oldest = entries_.find(order_.back());
    stats_.size -= oldest->second.bytes->size();
    --stats_.count;
    entries_.erase(oldest);
    order_.pop_back();
  }
}

CacheStats YPartCache::GetStats() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return stats_;
}

}  // namespace CloudMount
