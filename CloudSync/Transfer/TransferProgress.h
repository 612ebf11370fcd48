// CloudSync::TransferProgress: what the part transfer reports while it runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace CloudSync {

struct TransferProgress {
  uint64_t done = 0;     // bytes of the file handled so far
  uint64_t total = 0;    // the file's size
  uint64_t bytes = 0;    // bytes handled since the previous report (for throughput meters)
  size_t partsSent = 0;  // upload: parts the cloud lacked and got in this step
};

// Called on the caller's thread.
using TransferProgressFn = std::function<void(const TransferProgress &)>;
// Asked between batches; true stops the transfer with code 65 ("Operation
// terminated").
using TransferCancelFn = std::function<bool()>;

// Part size and batch sizes shared by both directions.
inline constexpr size_t kTransferPartSize = 0x100000;      // bytes per part (the last may be shorter)
inline constexpr size_t kUploadBatchParts = 5;             // parts offered to the cloud at once
inline constexpr uint64_t kDownloadBatchBytes = 0x100000;  // a download batch closes at this many bytes...
inline constexpr size_t kDownloadBatchParts = 100;         // ...or this many parts
inline constexpr unsigned int kTransferLogType = 213;      // CSM_CLOUD
inline constexpr unsigned int kTransferCancelled = 65;     // "Operation terminated"
inline constexpr unsigned int kFileChangedWhileRead = 184;
inline constexpr unsigned int kPartsMissing = 162;
inline constexpr unsigned int kPartMismatch = 169;

}  // namespace CloudSync
