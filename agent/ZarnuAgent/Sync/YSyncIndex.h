// Agent::Sync::YSyncIndex: the sync engine's crash-safe memory, an SQLite
// file in the data folder ("sync.db").
//
// It holds these things, changed only inside transactions so that a crash
// at any moment leaves one consistent state:
//   - base: per relative path, what the local folder and the cloud both held
//     the last time they were in step (local size, mtime, inode; cloud id);
//   - remote: the engine's view of the live cloud tree, built from the
//     service's change feed;
//   - landing and sending: journals of downloads and uploads under way, for
//     the moment between the cloud or the folder changing and the base;
//   - meta: named texts, among them the change feed's cursor, stored in the
//     same transaction as the remote entries it led to.
// Every commit is synced to disk (WAL, synchronous=FULL) before it returns.
//
// Thread-safety: all operations take the index's mutex; a transaction holds
// it from begin to end, so a transaction is never interleaved with another
// thread's writes.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "Qel/SQLite/YSqliteDb.h"
#include "Sync/SyncTypes.h"

namespace Agent::Sync {

inline constexpr const char* kIndexFile = "sync.db";
inline constexpr const char* kMetaCursor = "cursor";
inline constexpr const char* kMetaLink = "link";

class YSyncIndex {
 public:
  explicit YSyncIndex(const Qel::YString& file);

  // Opens (creating when missing) the file and its tables.
  void Open();

  std::map<Qel::YString, BaseItem> LoadBase();
  // Downloads about to be renamed into place: the base each will have once
  // it is there (its temporary file's inode, size and time). A landing whose
  // file is at its path on restart became the base; any other never landed.
  std::map<Qel::YString, BaseItem> LoadLandings();
  // Uploads whose cloud file may have been created without their base being
  // written (a crash in between): a cloud file at the path with the same
  // parts and time is that upload's, and the journalled local file its base.
  std::map<Qel::YString, SendingItem> LoadSendings();
  std::map<Qel::YString, RemoteItemPtr> LoadRemote();
  Qel::YString GetMeta(const Qel::YString& name);

  // Runs `work` in one write transaction (committed and synced when it
  // returns, rolled back when it throws). The writes below may be called
  // inside or outside one; outside, each is its own transaction.
  void RunInTransaction(const std::function<void()>& work);
  // A number drawn when the index is opened: it tells this start of the
  // agent's journal entries from those an earlier one left.
  uint64_t Run() const { return run_; }
  void PutBase(const Qel::YString& path, const BaseItem& item);
  void RemoveBase(const Qel::YString& path);
  void PutLanding(const Qel::YString& path, const BaseItem& item);
  void RemoveLanding(const Qel::YString& path);
  // Stamps the item with Run().
  void PutSending(const Qel::YString& path, SendingItem item);
  // Puts back an entry as LoadSendings gave it, with its own run.
  void RestoreSending(const Qel::YString& path, const SendingItem& item);
  void RemoveSending(const Qel::YString& path);
  void PutRemote(const Qel::YString& path, const RemoteItem& item);
  void RemoveRemote(const Qel::YString& path);
  void SetMeta(const Qel::YString& name, const Qel::YString& value);
  void ClearRemote();
  void ClearAll();

 private:
  void Write(const Qel::YString& sql, const std::function<void(Qel::SQLite::YStatement&)>& bind);
  std::map<Qel::YString, BaseItem> LoadItems(const char* table);
  void PutItem(const char* table, const Qel::YString& path, const BaseItem& item);

  std::recursive_mutex mutex_;
  Qel::SQLite::YSqliteDb db_;
  uint64_t run_ = 0;
};

}  // namespace Agent::Sync
