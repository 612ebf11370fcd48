// Agent::YPathStatusTable: what the agent knows of the sync state of paths
// under its root folder, keyed by absolute local path. The sync engine
// writes it; the overlay reads it and subscribes clients to changes.
//
// A path the table does not hold is "none" (all numbers 0). A folder is
// "syncing" while anything below it is, whatever its own entry says.
// Clients that asked for a path (Subscribe) are told through the notify
// function whenever the path's effective state changes, including a folder
// that starts or stops being syncing because of something below it.
//
// Thread-safety: every operation takes the table's mutex; the notify
// function is called with no lock held, from the thread that made the change.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include "Qel/YString.h"

namespace Agent {

inline constexpr int32_t kStatusNone = 0;
inline constexpr int32_t kStatusSynced = 1;
inline constexpr int32_t kStatusSyncing = 2;
inline constexpr int32_t kStatusError = 3;
inline constexpr int32_t kProgressSteps = 5;  // progress 1..5: 20 % steps

struct YPathState {
  int32_t cloudStatus = kStatusNone;  // kStatus*
  int32_t syncProgress = 0;           // 0 none, 1..5 in 20 % steps
  uint32_t flags = 0;
  bool operator==(const YPathState&) const = default;
};

class YPathStatusTable {
 public:
  using Changes = std::vector<std::pair<Qel::YString, YPathState>>;
  using Notify = std::function<void(uint64_t subscriber, const Changes& changes)>;

  // The effective state of `path`.
  YPathState Get(const Qel::YString& path) const;
  void Set(const Qel::YString& path, const YPathState& state);
  void Remove(const Qel::YString& path);
  // Forgets every state (subscriptions stay; subscribers hear "none").
  void Clear();
  size_t Size() const;

  // Folders above `root` are never counted as syncing.
  void SetRoot(const Qel::YString& root);
  void SetNotify(Notify notify);
  void Subscribe(uint64_t subscriber, const Qel::YString& path);
  void Unsubscribe(uint64_t subscriber);
  // Tells every subscriber the state of each path it subscribed to, changed
  // or not (the overlay was switched back on).
  void NotifyAllSubscribed();

 private:
  YPathState EffectiveLocked(const Qel::YString& path) const;
  // Applies a state change of `path` and collects every path whose
  // effective state changed into `changed`.
  void ChangeLocked(const Qel::YString& path, const YPathState* state, std::set<Qel::YString>& changed);
  void NotifyChanged(const std::set<Qel::YString>& changed, std::unique_lock<std::mutex>& lock);

  mutable std::mutex mutex_;
  Qel::YString root_;
  std::map<Qel::YString, YPathState> states_;
  std::map<Qel::YString, uint32_t> busy_below_;  // folder -> syncing paths below it
  std::map<Qel::YString, std::set<uint64_t>> subscribers_;
  std::map<uint64_t, std::set<Qel::YString>> subscriptions_;
  Notify notify_;
};

}  // namespace Agent
