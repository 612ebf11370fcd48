// Agent::Sync::YSyncEngine: keeps the linked root folder and the account's
// cloud root the same, both ways.
//
// Three threads: the engine's own (scans the root folder and runs passes of
// YReconciler), the change feed's (long-polls the service and applies its
// answers to the remote view), and the folder watcher's (inotify). A pass
// runs when the watcher or the feed reports a change (after a short quiet
// time, so a burst of events makes one pass), when a waiting file becomes
// stable, and every kRescanSeconds as the safety net.
//
// An agent that is not linked runs no pass; the engine looks for a link every
// few seconds and starts by itself. A new link (another account, address or
// root folder) starts from an empty index. A root folder that is missing is
// never taken for "everything deleted": the engine logs it and waits.
//
// Thread-safety: Start, Stop, Wake and RequestResync may be called from any
// thread. REQUIRES: Stop is called before the agent state goes away.
#pragma once

#include <atomic>
#include <functional>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "CloudSync/YCloudApi.h"
#include "Sync/YFolderWatcher.h"
#include "Sync/YReconciler.h"
#include "Sync/YRemoteView.h"
#include "Sync/YSyncIndex.h"
#include "YAgentState.h"

namespace Agent::Sync {

inline constexpr int kRescanSeconds = 60;
inline constexpr int kFeedPollSeconds = 25;

class YSyncEngine {
 public:
  explicit YSyncEngine(YAgentState& state);
  ~YSyncEngine();
  YSyncEngine(const YSyncEngine&) = delete;
  YSyncEngine& operator=(const YSyncEngine&) = delete;

  void Start();
  void Stop();
  // Something may have changed: run a pass soon.
  void Wake();
  // Resync: `fromScratch` also asks the cloud for its whole tree again.
  void RequestResync(bool fromScratch);

  // For diagnostics: passes run, and whether the cloud answered last time.
  uint64_t CountPasses() const { return passes_.load(); }
  bool IsCloudReachable() const { return signal_->cloudReachable.load(); }

 private:
  struct Link {
    Qel::YString address, user, token, root;
    bool operator==(const Link&) const = default;
    bool IsComplete() const { return !token.empty() && !root.empty(); }
    Qel::YString Key() const { return address + "\n" + user + "\n" + root; }
  };

  void Run();
  void StartFeed();
  void StopFeed();
  Link ReadLink();
  bool Attach(const Link& link);
  void Detach();
  void Pass();
  // What a cloud client needs, read on the engine's thread; the feed thread
  // gets a copy and never touches the engine.
  struct ClientSetup {
    Qel::YString configDb;
    uint64_t upLimit = 0, downLimit = 0;
  };
  ClientSetup ReadClientSetup();
  static std::unique_ptr<CloudSync::YCloudApi> Connect(const Link& link, const ClientSetup& setup);
  void MakeConnections();
  void WaitForWork(int64_t wakeAtNs);
  bool IsStopping() const { return stopping_.load(); }

  YAgentState& state_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> attached_{false};
  std::atomic<uint64_t> passes_{0};

  // Shared with the feed thread, which may outlive the engine.
  struct Signal {
    std::mutex mutex;
    std::condition_variable cv;
    bool woken = false;          // guarded by mutex
    bool resync = false;         // guarded by mutex
    bool resyncScratch = false;  // guarded by mutex
    std::atomic<bool> cloudReachable{true};
    void Wake() {
      {
        std::lock_guard<std::mutex> lock(mutex);
        woken = true;
      }
      cv.notify_all();
    }
  };
  std::shared_ptr<Signal> signal_ = std::make_shared<Signal>();

  // Owned by the engine thread while attached.
  Link link_;
  // Shared with the feed thread, which may outlive a Stop by the length of
  // one long poll (it is then left to finish on its own).
  std::shared_ptr<YSyncIndex> index_;
  std::shared_ptr<YRemoteView> view_;
  std::map<Qel::YString, BaseItem> base_;
  std::map<Qel::YString, PathError> errors_;
  std::vector<std::unique_ptr<CloudSync::YCloudApi>> connections_;
  size_t senders_ = 1;  // [0] for metadata, then senders, receivers
  std::unique_ptr<YFolderWatcher> watcher_;
  Qel::YString last_failure_;  // summary of the last failed pass, "" after a good one
  struct FeedControl {
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::condition_variable done_cv;
    bool done = false;
  };
  std::shared_ptr<FeedControl> feed_;
  std::thread thread_;
};

}  // namespace Agent::Sync
