// Agent::Sync::YReconciler: one pass of the sync engine over the root
// folder. It compares, for every path, the local item, the cloud item and
// the base (what both held when last in step), decides what to do, and does
// it. The rules:
//   - changed on one side only: the change goes to the other side (a local
//     delete becomes a cloud delete, which the cloud keeps for undelete; a
//     cloud delete moves the local file to the trash or deletes it);
//   - changed on both sides: equal content is simply taken as in step;
//     otherwise the local item is renamed to a conflict copy (uploaded on the
//     next pass) and the cloud's item comes down;
//   - a file modified less than kStableNs ago is left until it is stable;
//   - downloads land in a temporary file in the target folder and are renamed
//     into place only if the local item is still what the pass saw;
//   - cloud writes are conditional on the version the pass saw: when another
//     client was faster, the pass leaves the path to the next one;
//   - names the cloud cannot hold, unreadable files and failed transfers get
//     status Error and are retried later; nothing is deleted because of them.
// Every change to the base is written to the sync index before the pass goes
// on, in the same transaction as the engine's record of its own cloud write.
//
// Thread-safety: a reconciler is used by the engine's thread only.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "CloudSync/Transfer/TransferProgress.h"
#include "CloudSync/YCloudApi.h"
#include "Sync/SyncTypes.h"
#include "Sync/YLocalScanner.h"
#include "Sync/YRemoteView.h"
#include "Sync/YSyncIndex.h"
#include "YPathStatusTable.h"

namespace Agent::Sync {

inline constexpr int64_t kStableNs = 1500000000;       // a file untouched this long is complete
inline constexpr int64_t kRetryAfterErrorNs = 30000000000;  // failed paths wait this long unless they change
// How long the cloud may still be finishing a create that an earlier start of
// the agent sent just before it died: its journal entry is kept that long
// after the view has caught up.
inline constexpr std::chrono::seconds kSendingGrace{60};

// What the engine hands a pass. Nothing here is owned by the pass.
struct SyncContext {
  Qel::YString root;  // absolute, no trailing "/"
  YSyncIndex* index = nullptr;
  YRemoteView* view = nullptr;
  std::map<Qel::YString, BaseItem>* base = nullptr;  // mirror of the index's base table
  CloudSync::YCloudApi* api = nullptr;               // logged in
  std::vector<CloudSync::YCloudApi*> senders;        // logged in, at least one
  std::vector<CloudSync::YCloudApi*> receivers;      // logged in, at least one
  YPathStatusTable* statuses = nullptr;
  bool moveToTrash = false;
  std::function<bool()> stopping;
};

struct PathError {
  Qel::YString reason;
  int64_t retryAtNs = 0;
  LocalItem local;  // what the path was when it failed; a change retries at once
  bool hadLocal = false;
};

class YReconciler {
 public:
  struct Outcome {
    bool again = false;        // something was left for a next pass soon (conflict renamed, stale view)
    int64_t wakeAtNs = 0;      // 0, or the realtime at which a waiting path should be looked at again
    bool cloudDown = false;    // the cloud did not answer; the pass stopped
    size_t uploads = 0, downloads = 0, cloudDeletes = 0, localDeletes = 0, conflicts = 0, folders = 0;
    size_t errors = 0;
  };

  // `errors` persists across passes (the engine owns it).
  YReconciler(SyncContext& context, std::map<Qel::YString, PathError>& errors);

  Outcome Run(const LocalScan& scan);

 private:
  enum class Action {
    kNone,
    kAdopt,          // both sides hold the same: record the base
    kUpload,
    kRemoteMkdir,
    kDownload,
    kLocalMkdir,
    kRemoteDelete,
    kLocalDelete,
    kForget,         // both sides gone: drop the base
    kConflict,
    kCompare,        // both changed, same size: compare content first
    kWait,           // not stable yet
  };
  struct Item {
    Qel::YString path;
    const LocalItem* local = nullptr;
    RemoteItemPtr remote;
    const BaseItem* base = nullptr;
    Action action = Action::kNone;
  };

  Action Decide(const Item& item) const;
  // Turns the journalled downloads whose rename happened into bases and
  // drops the rest (a crash between the rename and the base).
  void SettleLandings();
  // Turns the journalled uploads whose cloud file is in `remote` into bases
  // (a crash between the cloud's create and the base); the others wait, as
  // the change feed may not have brought their file yet. `caughtUpAt` is the
  // view's, read before `remote` was taken.
  void SettleSendings(const std::map<Qel::YString, RemoteItemPtr>& remote,
                      std::optional<std::chrono::steady_clock::time_point> caughtUpAt);
  void Execute(Item& item);
  void Upload(const Item& item);
  void Download(const Item& item);
  void RemoteMkdir(const Item& item);
  void LocalMkdir(const Item& item);
  void RemoteDelete(const Item& item);
  void LocalDelete(const Item& item);
  void Conflict(const Item& item);
  void Adopt(const Item& item, const RemoteItem& remote);
  bool SameContent(const Item& item);

  void PutBase(const Qel::YString& path, const BaseItem& base);
  void RemoveBase(const Qel::YString& path);
  Qel::YString Absolute(const Qel::YString& path) const;
  void SetStatus(const Qel::YString& path, int32_t status, int32_t progress = 0);
  void Fail(const Item& item, const Qel::YString& reason);
  bool StillAsSeen(const Item& item) const;
  // A transfer's progress as Syncing statuses of `path`, in 20 % steps.
  CloudSync::TransferProgressFn ShowProgress(const Qel::YString& path);

  SyncContext& ctx_;
  std::map<Qel::YString, PathError>& errors_;
  // Journalled uploads of earlier passes whose cloud file this pass has not
  // seen (yet): the create may still land.
  std::map<Qel::YString, SendingItem> unsettled_;
  Outcome outcome_;
  int64_t now_ns_ = 0;
};

}  // namespace Agent::Sync
