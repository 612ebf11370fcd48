// Agent::YPathStatusTable: what the agent knows of the sync state of paths
// under its root folder. The sync engine writes it; the overlay reads it.
// A path the table does not hold is "none" (all numbers 0).
// Thread-safety: every operation takes the table's mutex.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "Qel/YString.h"

namespace Agent {

struct YPathState {
  int32_t cloudStatus = 0;   // 0 none, 1 synced, 2 syncing, 3 error
  int32_t syncProgress = 0;  // 0 none, 1..5 in 20 % steps
  uint32_t flags = 0;
  bool operator==(const YPathState&) const = default;
};

class YPathStatusTable {
 public:
  YPathState Get(const Qel::YString& path) const;
  void Set(const Qel::YString& path, const YPathState& state);
  void Clear();
  size_t Size() const;

 private:
  mutable std::mutex mutex_;
  std::map<Qel::YString, YPathState> states_;
};

}  // namespace Agent
