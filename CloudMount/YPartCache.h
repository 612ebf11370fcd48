// CloudMount::YPartCache: verified part bytes by fingerprint, least recently
// used out first once the held bytes pass the limit.
//
// Only bytes already checked against their fingerprint are put in, so a part
// that failed verification never enters. Find counts a hit or a miss.
// Thread-safety: every operation may be called from any thread.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "CloudMount/YCloudMountInstance.h"
#include "Qel/YString.h"

namespace CloudMount {

class YPartCache {
 public:
  using Bytes = std::shared_ptr<const std::string>;

  explicit YPartCache(uint64_t limitBytes) : limit_(limitBytes) {}

  // The bytes of `fingerprint`, or null (a miss).
  Bytes Find(const Qel::YString& fingerprint);
  // Whether `fingerprint` is held, without counting a hit or a miss.
  bool Contains(const Qel::YString& fingerprint) const;
  // Keeps `bytes` as the most recently used; evicts the least recently used
  // parts while more than the limit is held (a part larger than the limit is
  // not kept).
  void Put(const Qel::YString& fingerprint, Bytes bytes);
  CacheStats GetStats() const;

 private:
  struct Entry {
    Bytes bytes;
    std::list<Qel::YString>::iterator place;
  };
  uint64_t limit_;
  mutable std::mutex mutex_;
  std::list<Qel::YString> order_;  // most recently used first
  std::unordered_map<std::string, Entry> entries_;
  CacheStats stats_;
};

}  // namespace CloudMount
