// CloudMount::YCloudMountEngine: the FUSE 3 volume behind YCloudMountInstance.
//
// The volume is read-only: listings come from YFolderCache, file bytes from
// the file's parts, fetched on demand through the engine's logged-in
// CloudSync::YCloudApi, verified against their fingerprints by the client and
// kept in a YPartCache. A part that cannot be fetched or fails verification
// gives EIO for that read and a CSM_CMOUNT log line, and is not cached. Every
// change (write, create, mkdir, unlink, rename, chmod, truncate, xattr write)
// is refused with EROFS.
//
// The FUSE session runs single-threaded on the engine's worker thread, which
// is the only user of the cloud client once mounted. On sequential reads the
// next part is read ahead by a second thread with a connection of its own; a
// read that needs a part being read ahead waits for it rather than fetching
// it twice. Stop() unmounts and joins
// it; an unmount from outside (fusermount3 -u) ends it too.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <set>
#include <map>
#include <memory>
#include <mutex>

#include "CloudMount/YCloudMountInstance.h"
#include "CloudMount/YFolderCache.h"
#include "CloudMount/YPartCache.h"
#include "CloudSync/YCloudApi.h"
#include "Qel/Thread/YThread.h"
#include "Qel/Util/YThroughputTimer.h"

struct fuse;

namespace CloudMount {

class YCloudMountEngine : public YCloudMountInstance {
 public:
  explicit YCloudMountEngine(const Qel::YString& instanceName);
  ~YCloudMountEngine() override;

  void Start(const Qel::YString& options) override;
  void Stop() override;
  void Mount(const Qel::YString& cloudPath, const Qel::YString& localPath) override;
  bool IsActive() const override;
  CacheStats GetCacheStats() const override { return cache_->GetStats(); }
  Qel::YString GetPartDownloadThroughput() const override;

  // ---- The file system, called by the FUSE callbacks (worker thread) ----
  // Results are 0 or a negative errno, as FUSE wants them.

  // The entry at volume path `path` ("/" is the mounted folder itself).
  int Lookup(const char* path, CloudSync::MetadataPtr* entry);
  int ListFolder(const char* path, YFolderCache::FolderPtr* folder);
  // Copies up to `size` bytes of `file` from `offset` into `buffer`; returns
  // the count or a negative errno.
  int Read(const CloudSync::MetadataPtr& file, char* buffer, size_t size, uint64_t offset);
  // Open files: a handle number for FUSE, the entry as it was when opened.
  uint64_t OpenFile(CloudSync::MetadataPtr entry);
  CloudSync::MetadataPtr GetOpenFile(uint64_t handle);
  void CloseFile(uint64_t handle);

 private:
  Qel::YString CloudPathOf(const char* path) const;
  YFolderCache::Folder FetchFolder(const Qel::YString& cloudFolder);
  YPartCache::Bytes FetchPart(const CloudSync::MetadataInfo& file, const CloudSync::PartInfo& part);
  // Asks the read-ahead thread for `part` unless it is held or on its way.
  void ReadAhead(const CloudSync::MetadataPtr& file, const CloudSync::PartInfo& part);
  // Fetches `part` of `file` through `api`, checks it, counts it and caches it.
  YPartCache::Bytes Download(CloudSync::YCloudApi& api, const CloudSync::MetadataInfo& file,
                             const CloudSync::PartInfo& part);
  void ReadAheadBody();

  std::unique_ptr<CloudSync::YCloudApi> api_;
  std::unique_ptr<YPartCache> cache_;
  std::unique_ptr<YFolderCache> folders_;
  Qel::Util::YThroughputTimer throughput_;
  Qel::YString cloud_root_;  // the mounted cloud folder, without a trailing "/" ("" for the root)
  Qel::YString local_path_;
  struct fuse* fuse_ = nullptr;
  std::unique_ptr<Qel::Thread::YThread> worker_;
  std::unique_ptr<CloudSync::YCloudApi> ahead_api_;  // the read-ahead thread's own connection
  std::unique_ptr<Qel::Thread::YThread> ahead_;
  std::mutex ahead_mutex_;
  std::condition_variable ahead_cv_;
  std::deque<std::pair<CloudSync::MetadataPtr, CloudSync::PartInfo>> ahead_queue_;  // guarded by ahead_mutex_
  std::set<Qel::YString> in_flight_;                                  // guarded by ahead_mutex_
  std::map<uint64_t, uint64_t> read_ends_;  // file id -> end of its last read (worker thread only)
  std::mutex stop_mutex_;
  bool unmounted_ = false;  // guarded by stop_mutex_
  std::mutex open_mutex_;
  uint64_t next_handle_ = 1;                               // guarded by open_mutex_
  std::map<uint64_t, CloudSync::MetadataPtr> open_files_;  // guarded by open_mutex_
};

}  // namespace CloudMount
