#include "Sync/YRemoteView.h"

namespace Agent::Sync {

namespace {

// "/a/b" -> "a/b"; "" for the root (never kept).
Qel::YString ToRelative(const Qel::YString& cloudPath) {
  return cloudPath.StartsWith("/") ? Qel::YString(cloudPath.substr(1)) : cloudPath;
}

}  // namespace

YRemoteView::YRemoteView(YSyncIndex& index) : index_(index) {}

void YRemoteView::Load() {
  std::lock_guard<std::mutex> lock(mutex_);
  items_ = index_.LoadRemote();
  cursor_ = index_.GetMeta(kMetaCursor);
}

std::map<Qel::YString, RemoteItemPtr> YRemoteView::Snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return items_;
}

RemoteItemPtr YRemoteView::Find(const Qel::YString& relative) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = items_.find(relative);
  return it == items_.end() ? nullptr : it->second;
}

Qel::YString YRemoteView::GetCursor() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return cursor_;
}

bool YRemoteView::IsComplete() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return !cursor_.empty() && !staging_;
}

std::optional<std::chrono::steady_clock::time_point> YRemoteView::CaughtUpAt() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return caught_up_at_;
}

bool YRemoteView::HasCursor() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return !cursor_.empty();
}

void YRemoteView::RequestReset() {
  // Lock order everywhere: the index first, then the view.
  index_.RunInTransaction([&] {
    std::lock_guard<std::mutex> lock(mutex_);
    cursor_.clear();
    staging_ = false;
    staged_.clear();
    index_.SetMeta(kMetaCursor, "");
  });
}

uint64_t YRemoteView::BeginPoll() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return epoch_;
}

RemoteItemPtr YRemoteView::FromEntry(const CloudSync::MetadataInfo& entry) {
  if (entry.IsDeleted() || entry.id == 0) return nullptr;
  auto item = std::make_shared<RemoteItem>();
  item->id = entry.id;
  item->folder = entry.IsFolder();
  item->size = entry.size;
  item->modified = entry.modified;
  for (const CloudSync::PartPtr& part : entry.parts) item->parts.push_back({part->fingerprint, part->size});
  return item;
}

bool YRemoteView::IsStale(const Qel::YString& relative, const CloudSync::MetadataInfo& entry,
                          uint64_t startEpoch) const {
  auto it = own_writes_.find(relative);
  if (it == own_writes_.end() || it->second.epoch <= startEpoch) return false;
  const OwnWrite& own = it->second;
  // The cloud's change sequence orders states exactly (an undelete brings back
  // the same version id, later).
  if (own.seq != 0 && entry.changeSeq != 0) return entry.changeSeq < own.seq;
  if (entry.id < own.id) return true;  // an older version or an older deleted state
  // The engine deleted version `own.id`; the same version live is from before.
  return entry.id == own.id && !own.live && !entry.IsDeleted();
}

void YRemoteView::ApplyOne(std::map<Qel::YString, RemoteItemPtr>& view, const Qel::YString& relative,
                           RemoteItemPtr item, bool persist) {
  if (item) {
    if (persist) index_.PutRemote(relative, *item);
    view[relative] = std::move(item);
  } else {
    if (persist) index_.RemoveRemote(relative);
    view.erase(relative);
  }
}

bool YRemoteView::ApplyFeed(const std::vector<CloudSync::MetadataPtr>& changes, const Qel::YString& cursor, bool reset,
                            bool more, uint64_t startEpoch) {
  bool changed = false;
  index_.RunInTransaction([&] {
    std::lock_guard<std::mutex> lock(mutex_);
    changed = ApplyLocked(changes, cursor, reset, more, startEpoch);
  });
  return changed;
}

bool YRemoteView::ApplyLocked(const std::vector<CloudSync::MetadataPtr>& changes, const Qel::YString& cursor,
                              bool reset, bool more, uint64_t startEpoch) {
  if (reset && !staging_) {
    staging_ = true;
    staged_.clear();
  }
  bool changed = false;
  if (staging_) {
    for (const CloudSync::MetadataPtr& entry : changes) {
      const Qel::YString relative = ToRelative(entry->path);
      if (relative.empty() || IsStale(relative, *entry, startEpoch)) continue;
      ApplyOne(staged_, relative, FromEntry(*entry), false);
    }
    if (more) {
      cursor_ = cursor;  // the next page continues the reset; a crash restarts it (the index keeps "")
      return false;
    }
    // Own writes newer than the reset's start stay as the engine wrote them.
    for (const auto& [relative, own] : own_writes_) {
      if (own.epoch <= startEpoch) continue;
      auto current = items_.find(relative);
      if (current != items_.end() && own.live) staged_[relative] = current->second;
      if (!own.live) staged_.erase(relative);
    }
    changed = true;
    index_.ClearRemote();
    for (const auto& [relative, item] : staged_) index_.PutRemote(relative, *item);
    index_.SetMeta(kMetaCursor, cursor);
    items_.swap(staged_);
    staged_.clear();
    staging_ = false;
  } else {
    for (const CloudSync::MetadataPtr& entry : changes) {
      const Qel::YString relative = ToRelative(entry->path);
      if (relative.empty() || IsStale(relative, *entry, startEpoch)) continue;
      RemoteItemPtr item = FromEntry(*entry);
      auto current = items_.find(relative);
      const bool same = current == items_.end()
                            ? !item
                            : item && item->id == current->second->id && item->folder == current->second->folder;
      if (same) continue;
      ApplyOne(items_, relative, std::move(item), true);
      changed = true;
    }
    index_.SetMeta(kMetaCursor, cursor);
  }
  cursor_ = cursor;
  if (!caught_up_at_ && !more) caught_up_at_ = std::chrono::steady_clock::now();
  std::erase_if(own_writes_, [startEpoch](const auto& kv) { return kv.second.epoch <= startEpoch; });
  return changed;
}

void YRemoteView::RecordOwnWrite(const Qel::YString& relative, RemoteItemPtr item, uint64_t deletedId,
                                 uint64_t seq) {
  index_.RunInTransaction([&] {
    std::lock_guard<std::mutex> lock(mutex_);
    OwnWrite own;
    own.epoch = ++epoch_;
    own.live = item != nullptr;
    own.id = item ? item->id : deletedId;
    own.seq = seq;
    own_writes_[relative] = own;
    ApplyOne(items_, relative, std::move(item), true);
  });
}

}  // namespace Agent::Sync
