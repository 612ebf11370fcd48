// CloudSync::YPartDownloader: writes a cloud file's bytes from its parts.
//
// Parts are fetched in batches of about 1 MiB (at most 100 parts); the client
// checks each part against its fingerprint and size before it is written.
//
// Thread-safety: one Download at a time per object; each connection is used
// by one thread only.
#pragma once

#include <vector>

#include "CloudSync/PartInfo.h"
#include "CloudSync/Transfer/TransferProgress.h"

namespace CloudSync {

class YCloudApi;

class YPartDownloader {
 public:
  // `connections`: one or more logged-in clients, not owned, outliving the
  // object. With N clients N batches are fetched at once.
  // REQUIRES: !connections.empty(), no null entry.
  explicit YPartDownloader(std::vector<YCloudApi *> connections);

  // Writes every part of `entry` (a file entry listed with all its parts) in
  // file order to `fd` from offset 0, with positional writes. Raises 162 when
  // the listed parts do not add up to the entry's size or the cloud lacks one,
  // 169 for a part whose bytes do not match, 65 when `cancelled` says so, the
  // OS error of a failed write (ENOSPC for a full disk). `progress` is called
  // before each batch the calling thread fetches. Neither syncs nor closes
  // `fd`; on failure the file holds an unspecified prefix.
  void Download(const MetadataInfo &entry, int fd, const TransferProgressFn &progress = {},
                const TransferCancelFn &cancelled = {});

 private:
  std::vector<YCloudApi *> connections_;
};

}  // namespace CloudSync
