// CloudMount::YCloudMountInstance: the read-only cloud volume, as programs see
// it. The engine behind it lives in libCloudMount.so (the "CloudMount" module
// instance), so a program that uses this header never links FUSE: allocate it
// with Qel::Module::YInstanceClassPtr<CloudMount::YCloudMountInstance>.
//
// Start options (the allocation's argument text):
//   -authToken='<token>' -cloudAddress='<address>' [-cacheBytes=<n>]
// The engine logs in with the token; -cacheBytes bounds its part cache
// (kDefaultCacheBytes when absent).
//
// Thread-safety: Mount once, from one thread; the statistics and IsActive may
// be read from any thread while the volume runs.
#pragma once

#include <cstdint>

#include "Qel/Module/YInstance.h"
#include "Qel/YString.h"

namespace CloudMount {

inline constexpr const char* kClassName = "CloudMount";
inline constexpr uint64_t kDefaultCacheBytes = 64ull << 20;  // 64 MiB of verified parts

// The part cache's counters since the mount.
struct CacheStats {
  uint64_t hits = 0;    // part reads served from the cache
  uint64_t misses = 0;  // part reads that had to fetch the part from the cloud
  uint64_t size = 0;    // bytes of part data held now (at most the cache's limit)
  uint64_t count = 0;   // parts held now
};

class YCloudMountInstance : public Qel::Module::YInstance {
 public:
  using YInstance::YInstance;

  // Serves the cloud folder `cloudPath` read-only at the empty folder
  // `localPath` until the instance stops or the volume is unmounted from
  // outside. Raises a YError naming the path when the mount point does not
  // exist, is not an empty folder, is already a mount, or the cloud folder
  // cannot be listed.
  virtual void Mount(const Qel::YString& cloudPath, const Qel::YString& localPath) = 0;
  // True while the volume is served.
  virtual bool IsActive() const = 0;
  virtual CacheStats GetCacheStats() const = 0;
  // The recent rate of part downloads, "12.34 MB/s".
  virtual Qel::YString GetPartDownloadThroughput() const = 0;
};

}  // namespace CloudMount
