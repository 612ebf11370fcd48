// CloudSync::YPartUploader: sends a local file's parts to the cloud.
//
// The file is cut into parts of 1 MiB (the last one shorter), each named by
// its fingerprint. Parts go to the cloud in batches of five; the cloud takes
// only those it lacks, so a file whose parts it already holds costs one
// question per batch and no bytes. The cloud file itself is not created: the
// caller hands the returned list to YCloudApi::CreateFile or CreateFileIf.
//
// Memory: at most three batch buffers (5 MiB each), reused for the whole
// file, whatever the file's size and the number of connections: one being
// read, the others being sent. A connection waiting for the cloud's answer
// holds none.
//
// Thread-safety: one Upload at a time per object; the connections are used
// only from inside Upload, each by one thread.
#pragma once

#include <sys/stat.h>

#include <vector>

#include "CloudSync/PartInfo.h"
#include "CloudSync/Transfer/TransferProgress.h"
#include "Qel/YString.h"

namespace CloudSync {

class YCloudApi;

class YPartUploader {
 public:
  // `connections`: one or more logged-in clients, not owned, outliving the
  // object. With N clients up to N batches are in flight at once (stored by
  // the cloud side by side).
  // REQUIRES: !connections.empty(), no null entry.
  explicit YPartUploader(std::vector<YCloudApi *> connections);

  // Fingerprints `localFile`, sends the parts the cloud lacks and returns the
  // ordered part list (no bytes held). `progress` is called after each batch.
  // Raises 184 naming the file when it changes while it is read (size or
  // modification time), the OS error when it cannot be read, 65 when
  // `cancelled` says so, and whatever the cloud raises. `stat` (optional)
  // receives the file's status as fingerprinted.
  PartList Upload(const Qel::YString &localFile, const TransferProgressFn &progress = {},
                  const TransferCancelFn &cancelled = {}, struct stat *stat = nullptr);

 private:
  std::vector<YCloudApi *> connections_;
};

// The parts of `localFile` exactly as Upload cuts them, without any network.
// Raises like Upload.
PartList FingerprintFile(const Qel::YString &localFile, struct stat *stat = nullptr);

}  // namespace CloudSync
