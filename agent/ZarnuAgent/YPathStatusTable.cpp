#include "YPathStatusTable.h"

namespace Agent {

namespace {

constexpr size_t kMaxSubscriptionsPerClient = 100000;

bool IsSyncing(const YPathState& s) { return s.cloudStatus == kStatusSyncing; }

// The folders above `path`, nearest first, down to and including `root`.
std::vector<Qel::YString> AncestorsOf(const Qel::YString& path, const Qel::YString& root) {
  std::vector<Qel::YString> folders;
  if (root.empty() || path.size() <= root.size() || !path.StartsWith(root)) return folders;
  size_t slash = path.rfind('/');
  while (slash != Qel::YString::npos && slash >= root.size()) {
    folders.push_back(path.substr(0, slash));
    if (slash == root.size()) break;
    slash = path.rfind('/', slash - 1);
  }
  return folders;
}

}  // namespace

YPathState YPathStatusTable::EffectiveLocked(const Qel::YString& path) const {
  auto it = states_.find(path);
  YPathState state = it == states_.end() ? YPathState() : it->second;
  auto busy = busy_below_.find(path);
  if (busy != busy_below_.end() && busy->second > 0 && state.cloudStatus != kStatusSyncing) {
    state.cloudStatus = kStatusSyncing;
    state.syncProgress = 0;
  }
  return state;
}

YPathState YPathStatusTable::Get(const Qel::YString& path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return EffectiveLocked(path);
}

void YPathStatusTable::ChangeLocked(const Qel::YString& path, const YPathState* state,
                                    std::set<Qel::YString>& changed) {
  auto it = states_.find(path);
  const YPathState before = EffectiveLocked(path);
  const bool wasBusy = it != states_.end() && IsSyncing(it->second);
  const bool isBusy = state != nullptr && IsSyncing(*state);
  if (state) states_[path] = *state;
  else if (it != states_.end()) states_.erase(it);
  if (!(EffectiveLocked(path) == before)) changed.insert(path);
  if (wasBusy == isBusy) return;
  for (const Qel::YString& folder : AncestorsOf(path, root_)) {
    const YPathState folderBefore = EffectiveLocked(folder);
    uint32_t& count = busy_below_[folder];
    count = isBusy ? count + 1 : (count > 0 ? count - 1 : 0);
    if (count == 0) busy_below_.erase(folder);
    if (!(EffectiveLocked(folder) == folderBefore)) changed.insert(folder);
  }
}

void YPathStatusTable::NotifyChanged(const std::set<Qel::YString>& changed, std::unique_lock<std::mutex>& lock) {
  if (!notify_ || changed.empty()) return;
  std::map<uint64_t, Changes> bySubscriber;
  for (const Qel::YString& path : changed) {
    auto it = subscribers_.find(path);
    if (it == subscribers_.end()) continue;
    const YPathState state = EffectiveLocked(path);
    for (uint64_t subscriber : it->second) bySubscriber[subscriber].emplace_back(path, state);
  }
  Notify notify = notify_;
  lock.unlock();
  for (const auto& [subscriber, changes] : bySubscriber) notify(subscriber, changes);
}

void YPathStatusTable::NotifyAllSubscribed() {
  std::unique_lock<std::mutex> lock(mutex_);
  std::set<Qel::YString> all;
  for (const auto& [path, subscribers] : subscribers_) all.insert(path);
  NotifyChanged(all, lock);
}

void YPathStatusTable::Set(const Qel::YString& path, const YPathState& state) {
  std::unique_lock<std::mutex> lock(mutex_);
  std::set<Qel::YString> changed;
  ChangeLocked(path, &state, changed);
  NotifyChanged(changed, lock);
}

void YPathStatusTable::Remove(const Qel::YString& path) {
  std::unique_lock<std::mutex> lock(mutex_);
  std::set<Qel::YString> changed;
  ChangeLocked(path, nullptr, changed);
  NotifyChanged(changed, lock);
}

void YPathStatusTable::Clear() {
  std::unique_lock<std::mutex> lock(mutex_);
  std::set<Qel::YString> changed;
  for (const auto& [path, state] : states_) changed.insert(path);
  for (const auto& [folder, count] : busy_below_) changed.insert(folder);
  states_.clear();
  busy_below_.clear();
  NotifyChanged(changed, lock);
}

size_t YPathStatusTable::Size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return states_.size();
}

void YPathStatusTable::SetRoot(const Qel::YString& root) {
  std::lock_guard<std::mutex> lock(mutex_);
  root_ = root;
}

void YPathStatusTable::SetNotify(Notify notify) {
  std::lock_guard<std::mutex> lock(mutex_);
  notify_ = std::move(notify);
}

void YPathStatusTable::Subscribe(uint64_t subscriber, const Qel::YString& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::set<Qel::YString>& paths = subscriptions_[subscriber];
  if (paths.size() >= kMaxSubscriptionsPerClient) return;  // a client that asks for everything gets what it asked
  paths.insert(path);
  subscribers_[path].insert(subscriber);
}

void YPathStatusTable::Unsubscribe(uint64_t subscriber) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = subscriptions_.find(subscriber);
  if (it == subscriptions_.end()) return;
  for (const Qel::YString& path : it->second) {
    auto s = subscribers_.find(path);
    if (s == subscribers_.end()) continue;
    s->second.erase(subscriber);
    if (s->second.empty()) subscribers_.erase(s);
  }
  subscriptions_.erase(it);
}

}  // namespace Agent
