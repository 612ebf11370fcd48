// Agent::Sync::YFolderWatcher: inotify watches on the root folder and every
// folder below it. Any change calls `onChange` (from the watcher's thread);
// the engine then rescans. When the kernel's watch limit is reached the
// watcher says so once in the log, and the folders it could not watch are
// covered by the engine's periodic rescan only.
//
// Thread-safety: Watch and Stop may be called from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "Qel/YString.h"

namespace Agent::Sync {

class YFolderWatcher {
 public:
  explicit YFolderWatcher(std::function<void()> onChange);
  ~YFolderWatcher();
  YFolderWatcher(const YFolderWatcher&) = delete;
  YFolderWatcher& operator=(const YFolderWatcher&) = delete;

  // Starts watching `root` (absolute). Returns false (and logs why) when
  // inotify is not available; the periodic rescan then does all the work.
  bool Start(const Qel::YString& root);
  // Adds watches for these relative folders ("" is the root); folders
  // already watched cost nothing.
  void Watch(const std::vector<Qel::YString>& folders);
  void Stop();

  size_t CountWatches() const;
  bool HitLimit() const { return hit_limit_.load(); }

 private:
  void Run();
  void AddWatch(const Qel::YString& relative);

  std::function<void()> on_change_;
  Qel::YString root_;
  int inotify_fd_ = -1;
  int stop_fd_ = -1;
  mutable std::mutex mutex_;
  std::map<int, Qel::YString> by_descriptor_;  // guarded by mutex_
  std::set<Qel::YString> watched_;             // guarded by mutex_
  std::atomic<bool> hit_limit_{false};
  std::thread thread_;
};

}  // namespace Agent::Sync
