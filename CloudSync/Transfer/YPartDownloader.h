// CloudSync::YPartDownloader: writes a cloud file's bytes from its parts.
//
// Parts are fetched in batches of about 1 MiB (at most 100 parts); the client
// checks each part against its fingerprint and size before it is written.
//
// The work runs as a pipeline: one fetching thread per connection keeps
// batches coming (two per connection at most, in buffers kept for the whole
// download), the calling thread checks them in file order, several at once,
// and one writer thread puts them into the file in order, straight to the
// disk where the file system allows it. The file always holds a prefix of the
// checked parts: a failure leaves nothing after a part that did not arrive,
// did not match or could not be written (a full disk).
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
  // file order to `fd` from offset 0, with positional writes. Whole pages go
  // to the disk directly (O_DIRECT through a second descriptor of the same
  // file) where the file system allows it, the rest through the page cache.
  // Raises 162 when the listed parts do not add up to the entry's size or the
  // cloud lacks one, 169 for a part whose bytes do not match, 65 when
  // `cancelled` says so, the OS error of a failed write (ENOSPC for a full
  // disk). `progress` is called before each batch is written. Neither syncs
  // nor closes `fd`; on failure the file holds only parts before the first one
  // that failed: when a write failed, it is cut back to where that write began.
  void Download(const MetadataInfo &entry, int fd, const TransferProgressFn &progress = {},
                const TransferCancelFn &cancelled = {});

 private:
  std::vector<YCloudApi *> connections_;
};

}  // namespace CloudSync
