#include "Sync/YReconciler.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <random>

#include "AgentConstants.h"
#include "CloudSync/Transfer/YPartDownloader.h"
#include "CloudSync/Transfer/YPartUploader.h"
#include "Qel/Exception/YError.h"
#include "Qel/Log/YLog.h"
#include "Sync/YCloudNames.h"
#include "Sync/YTrash.h"

namespace Agent::Sync {

namespace {

Qel::Log::YLog& Log() { return Qel::Log::GetGlobalLogger(); }

int64_t NowNs() {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::optional<LocalItem> StatLocal(const Qel::YString& absolute) {
  struct stat st;
  if (::lstat(absolute.c_str(), &st) != 0) return std::nullopt;
  if (S_ISDIR(st.st_mode)) return LocalItem{true, 0, 0, static_cast<uint64_t>(st.st_ino)};
  return LocalItem{false, static_cast<uint64_t>(st.st_size),
                   static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec,
                   static_cast<uint64_t>(st.st_ino)};
}

// The cloud time of a file whose local mtime is `mtimeNs`: whole seconds.
int64_t ModifiedSeconds(int64_t mtimeNs) {
  return mtimeNs >= 0 ? mtimeNs / 1000000000 : -((-mtimeNs + 999999999) / 1000000000);
}

BaseItem BaseOf(const LocalItem& local, uint64_t cloudId) {
  return BaseItem{local.folder, local.size, local.mtimeNs, local.inode, cloudId};
}

// Progress in 20 % steps: 1 once a fifth is done ... 5 when all is.
int32_t ProgressStep(uint64_t done, uint64_t total) {
  if (total == 0) return kProgressSteps;
  return static_cast<int32_t>(std::min<uint64_t>(kProgressSteps, done * kProgressSteps / total));
}

// A transport failure or a service that answers nothing useful: the pass
// stops and waits for the cloud instead of marking every path.
bool IsCloudDown(const Qel::Exception::YError& e) {
  return e.GetCcode() == kNoAnswer || e.GetCcode() == kBadAnswer || e.GetCcode() == kNotLoggedIn;
}

// "report.txt" -> "report (conflict copy 2026-11-23 101500).txt"
Qel::YString ConflictName(const Qel::YString& path) {
  const size_t slash = path.rfind('/');
  const Qel::YString folder = slash == Qel::YString::npos ? Qel::YString() : path.substr(0, slash + 1);
  const Qel::YString name = slash == Qel::YString::npos ? path : Qel::YString(path.substr(slash + 1));
  size_t dot = name.rfind('.');
  if (dot == 0 || dot == Qel::YString::npos) dot = name.size();
  char stamp[32];
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  ::localtime_r(&now, &tm);
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H%M%S", &tm);
  return folder + name.substr(0, dot) + " (conflict copy " + stamp + ")" + name.substr(dot);
}

// Whether `cloud` is the file an upload journalled as `sent` created: the
// same parts, and the time the upload gave it (the local file's, in seconds).
bool IsCloudCopyOf(const RemoteItem& cloud, const SendingItem& sent) {
  return !cloud.folder && cloud.parts == sent.parts && cloud.modified == ModifiedSeconds(sent.local.mtimeNs);
}

Qel::YString TempName() {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  char text[24];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(random()));
  return Qel::YString(kTempPrefix) + text;
}

}  // namespace

YReconciler::YReconciler(SyncContext& context, std::map<Qel::YString, PathError>& errors)
    : ctx_(context), errors_(errors) {}

Qel::YString YReconciler::Absolute(const Qel::YString& path) const { return ctx_.root + "/" + path; }

void YReconciler::SetStatus(const Qel::YString& path, int32_t status, int32_t progress) {
  ctx_.statuses->Set(Absolute(path), YPathState{status, progress, 0});
}

void YReconciler::PutBase(const Qel::YString& path, const BaseItem& base) {
  ctx_.index->PutBase(path, base);
  (*ctx_.base)[path] = base;
}

void YReconciler::RemoveBase(const Qel::YString& path) {
  ctx_.index->RemoveBase(path);
  ctx_.base->erase(path);
}

void YReconciler::Fail(const Item& item, const Qel::YString& reason) {
  PathError& error = errors_[item.path];
  const bool first = error.reason != reason;
  error.reason = reason;
  error.retryAtNs = now_ns_ + kRetryAfterErrorNs;
  error.hadLocal = item.local != nullptr;
  if (item.local) error.local = *item.local;
  ++outcome_.errors;
  SetStatus(item.path, kStatusError);
  if (first) Log().Write(kLogExc, "Sync of " + Absolute(item.path) + " failed: " + reason);
}

CloudSync::TransferProgressFn YReconciler::ShowProgress(const Qel::YString& path) {
  // The status moves on only when the transfer reaches the next 20 % step.
  return [this, path, shown = int32_t{0}](const CloudSync::TransferProgress& p) mutable {
    const int32_t step = ProgressStep(p.done, p.total);
    if (step != shown && step < kProgressSteps) {
      shown = step;
      SetStatus(path, kStatusSyncing, step);
    }
  };
}

bool YReconciler::StillAsSeen(const Item& item) const {
  const std::optional<LocalItem> now = StatLocal(Absolute(item.path));
  if (!item.local) return !now.has_value();
  return now && now->SameAs(item.local->folder, item.local->size, item.local->mtimeNs, item.local->inode);
}

void YReconciler::SettleLandings() {
  for (const auto& [path, landed] : ctx_.index->LoadLandings()) {
    // The rename happened when the path holds the journalled file unchanged.
    const std::optional<LocalItem> now = StatLocal(Absolute(path));
    ctx_.index->RunInTransaction([&] {
      if (now && now->SameAs(landed.folder, landed.size, landed.mtimeNs, landed.inode)) PutBase(path, landed);
      ctx_.index->RemoveLanding(path);
    });
  }
}

void YReconciler::SettleSendings(const std::map<Qel::YString, RemoteItemPtr>& remote,
                                 std::optional<std::chrono::steady_clock::time_point> caughtUpAt) {
  // A request the dead agent sent may still be running at the service when
  // this start's first answer comes, so that answer need not show its file.
  const bool settled = caughtUpAt && std::chrono::steady_clock::now() - *caughtUpAt >= kSendingGrace;
  for (const auto& [path, sent] : ctx_.index->LoadSendings()) {
    const auto r = remote.find(path);
    if (r != remote.end() && IsCloudCopyOf(*r->second, sent)) {
      BaseItem base = sent.local;
      base.cloudId = r->second->id;
      ctx_.index->RunInTransaction([&] {
        PutBase(path, base);
        ctx_.index->RemoveSending(path);
      });
    } else if (settled && sent.run != ctx_.index->Run()) {
      // Left by an earlier start, and the view has long held all the cloud
      // had when this one began: the create never happened, or another
      // client's version replaced it; the path is decided like any other.
      ctx_.index->RemoveSending(path);
    } else {
      unsettled_[path] = sent;
    }
  }
}

YReconciler::Action YReconciler::Decide(const Item& item) const {
  const LocalItem* l = item.local;
  const RemoteItem* r = item.remote.get();
  const BaseItem* b = item.base;
  const bool localChanged = b == nullptr ? l != nullptr
                                         : l == nullptr || !l->SameAs(b->folder, b->size, b->mtimeNs, b->inode);
  const bool remoteChanged =
      b == nullptr ? r != nullptr : r == nullptr || r->folder != b->folder || (!r->folder && r->id != b->cloudId);
  const bool stable = l == nullptr || l->folder || now_ns_ - l->mtimeNs >= kStableNs;

  if (!localChanged && !remoteChanged) return Action::kNone;
  if (localChanged && !remoteChanged) {
    if (l == nullptr) return Action::kRemoteDelete;  // b is set: something was in step here
    if (l->folder) return r && !r->folder ? Action::kRemoteDelete : Action::kRemoteMkdir;
    if (r && r->folder) return Action::kConflict;  // a local file where the cloud keeps a folder
    return stable ? Action::kUpload : Action::kWait;
  }
  if (!localChanged && remoteChanged) {
    if (r == nullptr) return Action::kLocalDelete;  // b is set
    if (r->folder) return l && !l->folder ? Action::kLocalDelete : Action::kLocalMkdir;
    if (l && l->folder) return Action::kConflict;
    return Action::kDownload;
  }
  // Changed on both sides.
  if (l == nullptr && r == nullptr) return Action::kForget;
  if (l == nullptr) return r->folder ? Action::kLocalMkdir : Action::kDownload;  // a cloud change beats a local delete
  if (r == nullptr) {
    if (!stable) return Action::kWait;
    return l->folder ? Action::kRemoteMkdir : Action::kUpload;  // a local change beats a cloud delete
  }
  if (l->folder && r->folder) return Action::kAdopt;
  if (l->folder != r->folder) return Action::kConflict;
  if (!stable) return Action::kWait;
  return l->size == r->size ? Action::kCompare : Action::kConflict;
}

YReconciler::Outcome YReconciler::Run(const LocalScan& scan) {
  outcome_ = Outcome();
  now_ns_ = NowNs();
  // Read first: the snapshot then holds the answer that caught the view up.
  const auto caughtUpAt = ctx_.view->CaughtUpAt();
  const std::map<Qel::YString, RemoteItemPtr> remote = ctx_.view->Snapshot();

  // Every path any side knows, in byte order: parents come before children.
  std::set<Qel::YString> paths;
  SettleLandings();
  SettleSendings(remote, caughtUpAt);
  for (const auto& [path, item] : scan.items) paths.insert(path);
  for (const auto& [path, item] : remote) paths.insert(path);
  for (const auto& [path, item] : *ctx_.base) paths.insert(path);

  std::vector<Item> items;
  items.reserve(paths.size());
  std::set<Qel::YString> known;
  for (const Qel::YString& path : paths) {
    if (IsIgnoredName(path)) continue;
    // Below a folder that cannot be read nothing is known: no path there
    // changes this pass.
    bool hidden = false;
    for (const auto& [folder, reason] : scan.unreadable) {
      if (IsBelow(path, folder)) hidden = true;
    }
    if (hidden) continue;
    Item item;
    item.path = path;
    auto l = scan.items.find(path);
    if (l != scan.items.end()) item.local = &l->second;
    auto r = remote.find(path);
    if (r != remote.end()) item.remote = r->second;
    auto b = ctx_.base->find(path);
    if (b != ctx_.base->end()) item.base = &b->second;

    auto unreadable = scan.unreadable.find(path);
    if (unreadable != scan.unreadable.end()) {
      Fail(item, "the folder cannot be read: " + unreadable->second);
      continue;
    }
    if (item.local && !item.remote && !item.base) {
      const Qel::YString problem = CheckCloudName(path);
      if (!problem.empty()) {
        Fail(item, "the cloud cannot hold this name (" + problem + ")");
        continue;
      }
    }
    auto error = errors_.find(path);
    if (error != errors_.end()) {
      const bool sameLocal = error->second.hadLocal == (item.local != nullptr) &&
                             (!item.local || item.local->SameAs(error->second.local.folder, error->second.local.size,
                                                                error->second.local.mtimeNs,
                                                                error->second.local.inode));
      if (sameLocal && now_ns_ < error->second.retryAtNs) {
        SetStatus(path, kStatusError);
        ++outcome_.errors;
        if (outcome_.wakeAtNs == 0 || error->second.retryAtNs < outcome_.wakeAtNs) {
          outcome_.wakeAtNs = error->second.retryAtNs;
        }
        continue;
      }
    }
    item.action = Decide(item);
    if (item.action == Action::kNone) {
      errors_.erase(path);
      if (item.local || item.remote) SetStatus(path, kStatusSynced, kProgressSteps);
      continue;
    }
    if (item.action == Action::kWait) {
      const int64_t at = item.local->mtimeNs + kStableNs;
      if (outcome_.wakeAtNs == 0 || at < outcome_.wakeAtNs) outcome_.wakeAtNs = at;
    }
    if (item.action != Action::kForget) SetStatus(path, kStatusSyncing);
    items.push_back(std::move(item));
  }

  // Creations and transfers parent first; deletes child first.
  for (Item& item : items) {
    if (ctx_.stopping()) return outcome_;
    if (item.action == Action::kRemoteDelete || item.action == Action::kLocalDelete) continue;
    Execute(item);
    if (outcome_.cloudDown) return outcome_;
  }
  for (auto it = items.rbegin(); it != items.rend(); ++it) {
    if (ctx_.stopping()) return outcome_;
    if (it->action != Action::kRemoteDelete && it->action != Action::kLocalDelete) continue;
    Execute(*it);
    if (outcome_.cloudDown) return outcome_;
  }
  return outcome_;
}

void YReconciler::Execute(Item& item) {
  try {
    switch (item.action) {
      case Action::kNone:
      case Action::kWait:
        return;
      case Action::kAdopt:
        Adopt(item, *item.remote);
        break;
      case Action::kCompare:
        if (SameContent(item)) Adopt(item, *item.remote);
        else Conflict(item);
        break;
      case Action::kUpload:
        Upload(item);
        break;
      case Action::kRemoteMkdir:
        RemoteMkdir(item);
        break;
      case Action::kDownload:
        Download(item);
        break;
      case Action::kLocalMkdir:
        LocalMkdir(item);
        break;
      case Action::kRemoteDelete:
        RemoteDelete(item);
        break;
      case Action::kLocalDelete:
        LocalDelete(item);
        break;
      case Action::kForget:
        RemoveBase(item.path);
        ctx_.statuses->Remove(Absolute(item.path));
        return;
      case Action::kConflict:
        Conflict(item);
        break;
    }
    errors_.erase(item.path);
  } catch (const Qel::Exception::YError& e) {
    if (e.GetCcode() == kConflict) {
      // Another client wrote first; the feed brings its version and wakes
      // the engine, and that pass decides again.
      Log().Write(kLogCsm, "The cloud changed " + ToCloudPath(item.path) + " meanwhile; looking at it again");
      return;
    }
    if (e.GetCcode() == kTerminated && ctx_.stopping()) return;
    if (IsCloudDown(e)) {
      outcome_.cloudDown = true;
      SetStatus(item.path, kStatusError);
      Log().Write(kLogExc, "The cloud is not reachable (" + e.GetSummary() + "); sync waits for it");
      return;
    }
    Fail(item, e.GetSummary());
  }
}

void YReconciler::Adopt(const Item& item, const RemoteItem& remote) {
  const std::optional<LocalItem> now = StatLocal(Absolute(item.path));
  if (!now) return;  // gone meanwhile: the next pass sees it
  PutBase(item.path, BaseOf(*now, remote.id));
  SetStatus(item.path, kStatusSynced, kProgressSteps);
}

bool YReconciler::SameContent(const Item& item) {
  const std::vector<CloudPart>& cloud = item.remote->parts;
  const CloudSync::PartList local = CloudSync::FingerprintFile(Absolute(item.path));
  if (local.size() != cloud.size()) return false;
  auto c = cloud.begin();
  for (const CloudSync::PartPtr& part : local) {
    if (part->fingerprint != c->fingerprint || part->size != c->size) return false;
    ++c;
  }
  return true;
}

void YReconciler::Upload(const Item& item) {
  const Qel::YString absolute = Absolute(item.path);
  CloudSync::YPartUploader uploader(ctx_.senders);
  struct stat st {};
  const CloudSync::PartList parts = uploader.Upload(absolute, ShowProgress(item.path), ctx_.stopping, &st);
  const LocalItem uploaded{false, static_cast<uint64_t>(st.st_size),
                           static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec,
                           static_cast<uint64_t>(st.st_ino)};
  SendingItem sending{BaseOf(uploaded, 0), {}};
  for (const CloudSync::PartPtr& part : parts) sending.parts.push_back({part->fingerprint, part->size});
  // Journalled before the cloud has the file: should the agent die before the
  // base is written, the next start knows the cloud file came from here (and
  // a local delete meanwhile is not undone by bringing it back).
  ctx_.index->PutSending(item.path, sending);
  const uint64_t ifVersion = item.remote ? item.remote->id : 0;
  CloudSync::MetadataPtr entry;
  try {
    entry = ctx_.api->CreateFileIf(ToCloudPath(item.path), parts, ModifiedSeconds(sending.local.mtimeNs), ifVersion);
  } catch (const Qel::Exception::YError& e) {
    // The service answered no: the cloud has no such file. Without an answer
    // it may have, and the journal stays for the next pass to settle. A "no"
    // because the path holds a file this pass did not see may mean an earlier
    // upload's create did land: its entry goes back for the next pass.
    if (!IsCloudDown(e)) {
      const auto earlier = unsettled_.find(item.path);
      if (earlier != unsettled_.end()) ctx_.index->RestoreSending(item.path, earlier->second);
      else ctx_.index->RemoveSending(item.path);
    }
    throw;
  }
  auto remote = std::make_shared<RemoteItem>();
  remote->id = entry->id;
  remote->size = entry->size;
  remote->modified = entry->modified;
  remote->parts = sending.parts;
  ctx_.index->RunInTransaction([&] {
    ctx_.view->RecordOwnWrite(item.path, remote, 0, entry->changeSeq);
    PutBase(item.path, BaseOf(uploaded, entry->id));
    ctx_.index->RemoveSending(item.path);
  });
  ++outcome_.uploads;
  SetStatus(item.path, kStatusSynced, kProgressSteps);
  Log().Write(kLogCsm, "Uploaded " + absolute + " (" + std::to_string(uploaded.size) + " bytes)");
}

void YReconciler::RemoteMkdir(const Item& item) {
  const CloudSync::MetadataPtr entry = ctx_.api->CreateDirectory(ToCloudPath(item.path));
  auto remote = std::make_shared<RemoteItem>();
  remote->id = entry->id;
  remote->folder = true;
  remote->modified = entry->modified;
  ctx_.index->RunInTransaction([&] {
    ctx_.view->RecordOwnWrite(item.path, remote, 0, entry->changeSeq);
    PutBase(item.path, BaseOf(*item.local, entry->id));
  });
  ++outcome_.folders;
  SetStatus(item.path, kStatusSynced, kProgressSteps);
  Log().Write(kLogCsmDetail, "Made cloud folder " + ToCloudPath(item.path));
}

void YReconciler::LocalMkdir(const Item& item) {
  const Qel::YString absolute = Absolute(item.path);
  std::error_code ec;
  std::filesystem::create_directories(std::string(absolute), ec);
  const std::optional<LocalItem> now = StatLocal(absolute);
  if (!now || !now->folder) {
    Fail(item, "cannot make the folder: " + (ec ? ec.message() : Qel::YString("a file is in the way")));
    return;
  }
  PutBase(item.path, BaseOf(*now, item.remote->id));
  ++outcome_.folders;
  SetStatus(item.path, kStatusSynced, kProgressSteps);
}

void YReconciler::Download(const Item& item) {
  const RemoteItem& remote = *item.remote;
  const Qel::YString absolute = Absolute(item.path);
  const Qel::YString folder = absolute.substr(0, absolute.rfind('/'));
  std::error_code ec;
  std::filesystem::create_directories(std::string(folder), ec);
  const Qel::YString temp = folder + "/" + TempName();
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) QEL_RAISE_OS(kLogExc, errno, temp, "agent/ZarnuAgent/Sync/YReconciler", "Download");
  // Whatever happens below, the temporary file does not stay.
  struct TempGuard {
    const Qel::YString& path;
    int fd;
    bool keep = false;
    ~TempGuard() {
      if (fd >= 0) ::close(fd);
      if (!keep) ::unlink(path.c_str());
    }
  } guard{temp, fd};

  CloudSync::MetadataInfo entry;
  entry.id = remote.id;
  entry.path = ToCloudPath(item.path);
  entry.size = remote.size;
  entry.modified = remote.modified;
  entry.partCount = remote.parts.size();
  uint64_t offset = 0;
  for (const CloudPart& part : remote.parts) {
    auto p = std::make_shared<CloudSync::PartInfo>();
    p->fingerprint = part.fingerprint;
    p->size = part.size;
    p->offset = offset;
    offset += part.size;
    entry.parts.push_back(p);
  }
  CloudSync::YPartDownloader downloader(ctx_.receivers);
  downloader.Download(entry, fd, ShowProgress(item.path), ctx_.stopping);
  const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(remote.modified), 0}};
  ::futimens(fd, times);
  if (::fsync(fd) != 0) QEL_RAISE_OS(kLogExc, errno, temp, "agent/ZarnuAgent/Sync/YReconciler", "Download");
  ::close(guard.fd);
  guard.fd = -1;

  if (!StillAsSeen(item)) {
    Log().Write(kLogCsm, absolute + " changed while its cloud version came down; the local version stays");
    outcome_.again = true;
    return;
  }
  // Journal the landing first: a crash right after the rename must still
  // know the file came from the cloud (else it would look new and go back up).
  const std::optional<LocalItem> landing = StatLocal(temp);
  if (landing) ctx_.index->PutLanding(item.path, BaseOf(*landing, remote.id));
  const int rc = item.local ? ::rename(temp.c_str(), absolute.c_str())
                            : ::renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, absolute.c_str(), RENAME_NOREPLACE);
  if (rc != 0) {
    if (errno == EEXIST) {
      outcome_.again = true;  // a local file appeared just now: the next pass compares
      return;
    }
    QEL_RAISE_OS(kLogExc, errno, absolute, "agent/ZarnuAgent/Sync/YReconciler", "Download");
  }
  guard.keep = true;
  const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  const std::optional<LocalItem> now = StatLocal(absolute);
  ctx_.index->RunInTransaction([&] {
    if (now) PutBase(item.path, BaseOf(*now, remote.id));
    ctx_.index->RemoveLanding(item.path);
  });
  ++outcome_.downloads;
  SetStatus(item.path, kStatusSynced, kProgressSteps);
  Log().Write(kLogCsm, "Downloaded " + absolute + " (" + std::to_string(remote.size) + " bytes)");
}

void YReconciler::RemoteDelete(const Item& item) {
  const BaseItem& base = *item.base;
  if (!item.remote) {  // already gone in the cloud
    RemoveBase(item.path);
    ctx_.statuses->Remove(Absolute(item.path));
    return;
  }
  if (item.remote->folder) {
    // Only an empty cloud folder goes: what is still below it came from the
    // cloud after the local delete, and comes down again instead.
    const auto view = ctx_.view->Snapshot();
    auto below = view.lower_bound(item.path + "/");
    if (below != view.end() && IsBelow(below->first, item.path)) {
      RemoveBase(item.path);
      outcome_.again = true;
      return;
    }
  }
  const uint64_t version = item.remote->folder ? item.remote->id : base.cloudId;
  uint64_t seq = 0;
  try {
    seq = ctx_.api->DeleteFileIf(ToCloudPath(item.path), version)->changeSeq;
  } catch (const Qel::Exception::YError& e) {
    if (e.GetCcode() != kFileNotFound) throw;
  }
  ctx_.index->RunInTransaction([&] {
    ctx_.view->RecordOwnWrite(item.path, nullptr, version, seq);
    RemoveBase(item.path);
  });
  ++outcome_.cloudDeletes;
  ctx_.statuses->Remove(Absolute(item.path));
  Log().Write(kLogCsm, "Deleted " + ToCloudPath(item.path) + " in the cloud (it can be restored from there)");
}

void YReconciler::LocalDelete(const Item& item) {
  const Qel::YString absolute = Absolute(item.path);
  if (!StillAsSeen(item)) {
    outcome_.again = true;  // changed just now: the local change wins on the next pass
    return;
  }
  if (item.local->folder) {
    if (::rmdir(absolute.c_str()) != 0) {
      // Something local below it is new or changed: keep the folder, which
      // then goes back to the cloud.
      RemoveBase(item.path);
      outcome_.again = true;
      return;
    }
  } else if (ctx_.moveToTrash) {
    const Qel::YString why = MoveToTrash(absolute, ctx_.root);
    if (!why.empty()) {
      Fail(item, "cannot move it to the trash: " + why);
      return;
    }
  } else if (::unlink(absolute.c_str()) != 0) {
    Fail(item, "cannot delete it: " + Qel::YString(std::strerror(errno)));
    return;
  }
  RemoveBase(item.path);
  ++outcome_.localDeletes;
  ctx_.statuses->Remove(absolute);
  Log().Write(kLogCsm, (ctx_.moveToTrash && !item.local->folder ? "Moved to the trash " : "Deleted ") + absolute +
                           " (deleted in the cloud)");
}

void YReconciler::Conflict(const Item& item) {
  const Qel::YString absolute = Absolute(item.path);
  const Qel::YString copy = ConflictName(item.path);
  if (!StillAsSeen(item)) {
    outcome_.again = true;
    return;
  }
  if (::renameat2(AT_FDCWD, absolute.c_str(), AT_FDCWD, Absolute(copy).c_str(), RENAME_NOREPLACE) != 0) {
    Fail(item, "cannot rename it to " + copy + ": " + std::strerror(errno));
    return;
  }
  RemoveBase(item.path);
  ++outcome_.conflicts;
  outcome_.again = true;
  Log().Write(kLogCsm, "Conflict on " + absolute + ": both sides changed it; the local version is kept as " +
                           Absolute(copy) + " and the cloud's version comes down");
}

}  // namespace Agent::Sync
