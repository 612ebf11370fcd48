// Agent::Sync::YRemoteView: the engine's view of the live cloud tree, shared
// by the change-feed thread (which applies the service's answers) and the
// engine (which takes snapshots and records its own writes).
//
// Every change is stored in the sync index together with the feed cursor it
// came with, in one transaction, so after a crash the view and the cursor
// still match.
//
// Own writes and stale answers: a feed answer may have been computed before
// one of the engine's own writes reached the cloud. The engine records each
// own write with an epoch number; an answer carries the epoch its request
// started in, and for a path with an own write of a later epoch, the answer's
// older state (a lower file id, or a live entry the engine itself deleted) is
// ignored. File version ids only grow, which makes "older" decidable.
//
// A feed reset (the service answers the whole tree) is gathered page by page
// and swapped in at the end, so the engine never sees half a tree (half a
// tree would look like cloud deletes).
//
// Thread-safety: all operations take the view's mutex.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "CloudSync/PartInfo.h"
#include "Sync/SyncTypes.h"
#include "Sync/YSyncIndex.h"

namespace Agent::Sync {

class YRemoteView {
 public:
  explicit YRemoteView(YSyncIndex& index);

  // Reads the view and the cursor from the index.
  void Load();
  std::map<Qel::YString, RemoteItemPtr> Snapshot() const;
  RemoteItemPtr Find(const Qel::YString& relative) const;
  Qel::YString GetCursor() const;
  // Forgets the cursor: the next answer is the whole tree again.
  void RequestReset();
  bool HasCursor() const;
  // True once a whole tree has been read (and no reset is being gathered):
  // only then may the engine take an absent path for "not in the cloud".
  bool IsComplete() const;
  // When an answer asked for after Load was first applied to its last page
  // (from then on, whatever the cloud held when this agent started is in the
  // view); empty until then. A snapshot taken after reading it holds that
  // answer.
  std::optional<std::chrono::steady_clock::time_point> CaughtUpAt() const;

  // The epoch a feed request starts in.
  uint64_t BeginPoll() const;
  // Applies one answer page. `changes` are the service's entries (paths are
  // cloud paths). Returns true when the view changed.
  bool ApplyFeed(const std::vector<CloudSync::MetadataPtr>& changes, const Qel::YString& cursor, bool reset,
                 bool more, uint64_t startEpoch);

  // Records the engine's own write at `relative`: `item` is what the cloud
  // answered, or null for a delete of version `deletedId`; `seq` is the
  // cloud's change sequence of the write (0 when unknown). Feed entries with
  // a lower sequence are older than the write and do not undo it. Writes to the
  // index in the caller's transaction when one is open.
  // Lock order: callers that hold an index transaction may call this (the
  // index before the view); the view never waits for the index while it
  // holds its own mutex.
  void RecordOwnWrite(const Qel::YString& relative, RemoteItemPtr item, uint64_t deletedId, uint64_t seq);

  // The remote item for a service entry (null for deleted entries).
  static RemoteItemPtr FromEntry(const CloudSync::MetadataInfo& entry);

 private:
  struct OwnWrite {
    uint64_t epoch = 0;
    uint64_t id = 0;
    uint64_t seq = 0;
    bool live = false;
  };
  bool ApplyLocked(const std::vector<CloudSync::MetadataPtr>& changes, const Qel::YString& cursor, bool reset,
                   bool more, uint64_t startEpoch);
  bool IsStale(const Qel::YString& relative, const CloudSync::MetadataInfo& entry, uint64_t startEpoch) const;
  void ApplyOne(std::map<Qel::YString, RemoteItemPtr>& view, const Qel::YString& relative, RemoteItemPtr item,
                bool persist);

  YSyncIndex& index_;
  mutable std::mutex mutex_;
  std::map<Qel::YString, RemoteItemPtr> items_;
  std::map<Qel::YString, RemoteItemPtr> staged_;  // a reset being gathered
  bool staging_ = false;
  std::optional<std::chrono::steady_clock::time_point> caught_up_at_;
  Qel::YString cursor_;
  uint64_t epoch_ = 0;
  std::map<Qel::YString, OwnWrite> own_writes_;
};

}  // namespace Agent::Sync
