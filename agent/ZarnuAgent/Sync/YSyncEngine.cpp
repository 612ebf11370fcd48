#include "Sync/YSyncEngine.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>

#include "AgentConstants.h"
#include "CloudSync/Paths.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/Log/YLog.h"
#include "Sync/YLocalScanner.h"
#include "YCloudConnection.h"

namespace Agent::Sync {

namespace {

constexpr auto kQuiet = std::chrono::milliseconds(150);   // a burst of events makes one pass
constexpr auto kMaxQuietWait = std::chrono::seconds(1);
constexpr auto kLinkCheck = std::chrono::seconds(2);
constexpr int kMaxFeedBackoffSeconds = 30;
constexpr auto kFeedStopWait = std::chrono::milliseconds(300);

Qel::Log::YLog& Log() { return Qel::Log::GetGlobalLogger(); }

int64_t NowNs() {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

bool IsFolder(const Qel::YString& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Bytes per second from a limit in KiB/s that counts only when its "Set"
// option is 1.
uint64_t Limit(YAgentSettings& settings, const char* setName, const char* valueName) {
  if (settings.GetNumber(setName) != 1) return 0;
  const int64_t kib = settings.GetNumber(valueName);
  return kib > 0 ? static_cast<uint64_t>(kib) * 1024 : 0;
}

}  // namespace

YSyncEngine::YSyncEngine(YAgentState& state) : state_(state) {}

YSyncEngine::~YSyncEngine() { Stop(); }

void YSyncEngine::Start() {
  thread_ = std::thread([this] { Run(); });
}

void YSyncEngine::Stop() {
  stopping_ = true;
  Wake();
  if (thread_.joinable()) thread_.join();
}

void YSyncEngine::Wake() { signal_->Wake(); }

void YSyncEngine::RequestResync(bool fromScratch) {
  {
    std::lock_guard<std::mutex> lock(signal_->mutex);
    signal_->resync = true;
    signal_->resyncScratch = signal_->resyncScratch || fromScratch;
    signal_->woken = true;
  }
  signal_->cv.notify_all();
}

YSyncEngine::Link YSyncEngine::ReadLink() {
  state_.ReloadLink();
  Link link;
  link.token = state_.GetToken();
  link.user = state_.GetUser();
  link.root = state_.GetRootFolder();
  link.address = state_.GetOption("csmCloudAddress", CloudSync::GetDefaultCloudAddress());
  return link;
}

YSyncEngine::ClientSetup YSyncEngine::ReadClientSetup() {
  ClientSetup setup;
  setup.configDb = state_.GetPath(kConfigDbFile);
  YAgentSettings& settings = state_.GetSettings();
  setup.upLimit = Limit(settings, "csmBandwithUpLimitSet", "csmBandwithUpLimit");
  setup.downLimit = Limit(settings, "csmBandwithDownLimitSet", "csmBandwithDownLimit");
  return setup;
}

std::unique_ptr<CloudSync::YCloudApi> YSyncEngine::Connect(const Link& link, const ClientSetup& setup) {
  return ConnectToCloud(link.address, link.token, setup.configDb, setup.upLimit, setup.downLimit);
}

void YSyncEngine::MakeConnections() {
  // [0] for metadata calls, then one per part sender, then one per part
  // receiver. Bandwidth limits are shared out among the connections that
  // carry parts in one direction.
  YAgentSettings& settings = state_.GetSettings();
  const size_t senders = static_cast<size_t>(std::clamp<int64_t>(settings.GetNumber("csmPartSenders"), 1, 16));
  const size_t receivers = static_cast<size_t>(std::clamp<int64_t>(settings.GetNumber("csmPartReceivers"), 1, 16));
  ClientSetup setup = ReadClientSetup();
  setup.upLimit /= senders;
  setup.downLimit /= receivers;
  connections_.clear();
  senders_ = senders;
  for (size_t i = 0; i < 1 + senders + receivers; ++i) connections_.push_back(Connect(link_, setup));
}

bool YSyncEngine::Attach(const Link& link) {
  if (!IsFolder(link.root)) {
    Log().Write(kLogExc, "Zarnu has lost the root folder " + link.root + "; sync waits until it is back");
    return false;
  }
  index_ = std::make_shared<YSyncIndex>(state_.GetPath(kIndexFile));
  index_->Open();
  if (index_->GetMeta(kMetaLink) != link.Key()) {
    // Another account, address or root: what the index knew is of no use.
    index_->ClearAll();
    index_->SetMeta(kMetaLink, link.Key());
  }
  view_ = std::make_shared<YRemoteView>(*index_);
  view_->Load();
  base_ = index_->LoadBase();
  errors_.clear();
  link_ = link;

  MakeConnections();

  YPathStatusTable& statuses = state_.GetPathStatuses();
  statuses.Clear();
  statuses.SetRoot(link.root);
  watcher_ = std::make_unique<YFolderWatcher>([this] { Wake(); });
  watcher_->Start(link.root);
  StartFeed();
  attached_ = true;
  Log().Write(kLogCsm, "Sync started: " + link.root + " <-> " + link.address + " as " + link.user + " (" +
                           std::to_string(base_.size()) + " paths in step when last seen)");
  return true;
}

void YSyncEngine::Detach() {
  if (!attached_.exchange(false)) return;
  StopFeed();
  if (watcher_) watcher_->Stop();
  watcher_.reset();
  connections_.clear();
  view_.reset();
  index_.reset();
  base_.clear();
}

void YSyncEngine::StartFeed() {
  feed_ = std::make_shared<FeedControl>();
  // The thread holds everything it uses, never the engine: it may outlive a
  // Stop by the rest of one long poll.
  std::thread([control = feed_, signal = signal_, view = view_, index = index_, link = link_,
               setup = ReadClientSetup()] {
    std::unique_ptr<CloudSync::YCloudApi> api;  // its own: a long poll must not hold up transfers
    int backoff = 1;
    bool reported = false;
    while (!control->stop) {
      try {
        if (!api) api = Connect(link, setup);
        const uint64_t epoch = view->BeginPoll();
        const Qel::YString cursor = view->GetCursor();
        CloudSync::YCloudApi::ChangesResult answer =
            api->GetChanges(cursor, cursor.empty() ? 0 : kFeedPollSeconds, 1000);
        if (control->stop) break;
        const bool changed = view->ApplyFeed(answer.changes, answer.cursor, answer.reset, answer.more, epoch);
        if (reported) {
          Log().Write(kLogCsm, "The cloud at " + link.address + " answers again");
          reported = false;
        }
        if (!signal->cloudReachable.exchange(true)) signal->Wake();
        backoff = 1;
        if (changed && !answer.more) signal->Wake();
      } catch (const Qel::Exception::YError& e) {
        if (control->stop) break;
        api.reset();
        if (!reported) {
          Log().Write(kLogExc, "The cloud's change feed failed (" + e.GetSummary() + "); retrying");
          reported = true;
        }
        signal->cloudReachable = false;
        std::unique_lock<std::mutex> lock(control->mutex);
        control->done_cv.wait_for(lock, std::chrono::seconds(backoff), [&] { return control->stop.load(); });
        backoff = std::min(backoff * 2, kMaxFeedBackoffSeconds);
      }
    }
    std::lock_guard<std::mutex> lock(control->mutex);
    control->done = true;
    control->done_cv.notify_all();
  }).detach();
}

void YSyncEngine::StopFeed() {
  if (!feed_) return;
  std::shared_ptr<FeedControl> control = std::move(feed_);
  {
    std::lock_guard<std::mutex> lock(control->mutex);
    control->stop = true;
  }
  control->done_cv.notify_all();
  // A long poll in flight ends on its own; the thread then sees `stop` and
  // leaves without touching the engine (it holds what it uses).
  std::unique_lock<std::mutex> lock(control->mutex);
  control->done_cv.wait_for(lock, kFeedStopWait, [&] { return control->done; });
}

void YSyncEngine::Pass() {
  if (!view_->IsComplete()) {
    // Until the cloud's tree is read once, an absent path means nothing yet;
    // the feed wakes the engine when it has the tree.
    WaitForWork(0);
    return;
  }
  const LocalScan scan = ScanLocalFolder(link_.root);
  if (scan.unreadable.count("") != 0) {
    Log().Write(kLogExc, "Zarnu has lost the root folder " + link_.root + " (" + scan.unreadable.at("") + ")");
    return;
  }
  for (const Qel::YString& leftover : scan.leftovers) ::unlink((link_.root + "/" + leftover).c_str());
  if (watcher_) {
    std::vector<Qel::YString> folders{""};
    for (const auto& [path, item] : scan.items) {
      if (item.folder) folders.push_back(path);
    }
    watcher_->Watch(folders);
  }

  SyncContext context;
  context.root = link_.root;
  context.index = index_.get();
  context.view = view_.get();
  context.base = &base_;
  context.api = connections_[0].get();
  YAgentSettings& settings = state_.GetSettings();
  for (size_t i = 1; i < connections_.size(); ++i) {
    (i <= senders_ ? context.senders : context.receivers).push_back(connections_[i].get());
  }
  if (context.receivers.empty()) context.receivers.push_back(connections_[0].get());
  context.statuses = &state_.GetPathStatuses();
  context.moveToTrash = settings.GetNumber("csmMoveToTrash2") == 1;
  context.stopping = [this] { return IsStopping(); };

  YReconciler reconciler(context, errors_);
  const YReconciler::Outcome outcome = reconciler.Run(scan);
  ++passes_;
  if (outcome.uploads + outcome.downloads + outcome.cloudDeletes + outcome.localDeletes + outcome.conflicts +
          outcome.folders >
      0) {
    Log().Write(kLogCsm, "Sync pass: " + std::to_string(outcome.uploads) + " uploaded, " +
                             std::to_string(outcome.downloads) + " downloaded, " +
                             std::to_string(outcome.cloudDeletes) + " deleted in the cloud, " +
                             std::to_string(outcome.localDeletes) + " deleted here, " +
                             std::to_string(outcome.conflicts) + " conflicts, " + std::to_string(outcome.folders) +
                             " folders, " + std::to_string(outcome.errors) + " errors");
  }
  // The root folder's own state: synced after a full pass, error while the
  // cloud cannot be reached (syncing shows through from below).
  state_.GetPathStatuses().Set(link_.root, outcome.cloudDown ? YPathState{kStatusError, 0, 0}
                                                            : YPathState{kStatusSynced, kProgressSteps, 0});
  if (outcome.cloudDown) {
    signal_->cloudReachable = false;
    connections_.clear();  // made again, logged in again, by the next pass
  }
  if (outcome.again) Wake();
  WaitForWork(outcome.wakeAtNs);
}

void YSyncEngine::WaitForWork(int64_t wakeAtNs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kRescanSeconds);
  if (wakeAtNs > 0) {
    const auto in = std::chrono::nanoseconds(std::max<int64_t>(0, wakeAtNs - NowNs()));
    deadline = std::min(deadline, std::chrono::steady_clock::now() + in);
  }
  Signal& s = *signal_;
  std::unique_lock<std::mutex> lock(s.mutex);
  s.cv.wait_until(lock, deadline, [&] { return s.woken || IsStopping(); });
  if (!s.woken) return;
  // Let a burst of changes settle into one pass.
  const auto limit = std::chrono::steady_clock::now() + kMaxQuietWait;
  while (s.woken && !IsStopping() && std::chrono::steady_clock::now() < limit) {
    s.woken = false;
    s.cv.wait_for(lock, kQuiet, [&] { return s.woken || IsStopping(); });
  }
  s.woken = false;
}

void YSyncEngine::Run() {
  while (!IsStopping()) {
    try {
      const Link link = ReadLink();
      if (attached_ && !(link == link_)) {
        Log().Write(kLogCsm, "The link changed; sync starts again for " + link.root);
        Detach();
      }
      if (!attached_) {
        if (!link.IsComplete() || !Attach(link)) {
          std::unique_lock<std::mutex> lock(signal_->mutex);
          signal_->cv.wait_for(lock, kLinkCheck, [this] { return IsStopping(); });
          continue;
        }
      }
      bool resync = false;
      bool scratch = false;
      {
        std::lock_guard<std::mutex> lock(signal_->mutex);
        std::swap(resync, signal_->resync);
        std::swap(scratch, signal_->resyncScratch);
      }
      if (resync) {
        errors_.clear();
        if (scratch) view_->RequestReset();
        Log().Write(kLogCsm, scratch ? "Full resync: both sides are read again from scratch"
                                     : "Resync: the root folder is scanned again");
      }
      if (connections_.empty()) MakeConnections();
      Pass();
      last_failure_.clear();
    } catch (const Qel::Exception::YError& e) {
      // The same failure again (a cloud that stays away) is logged once.
      if (e.GetSummary() != last_failure_) Log().Write(kLogExc, "Sync pass failed: " + e.GetSummary());
      last_failure_ = e.GetSummary();
      connections_.clear();
      std::unique_lock<std::mutex> lock(signal_->mutex);
      signal_->cv.wait_for(lock, std::chrono::seconds(5), [this] { return IsStopping(); });
    }
  }
  Detach();
}

}  // namespace Agent::Sync
