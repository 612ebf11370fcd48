// Download: the part list is cut into batches up front (each knows its file
// offset); the calling thread and one helper thread per further connection
// take the next batch in turn, fetch it and write each part at its offset.
// The first failure stops everyone from taking more batches and is raised on
// the calling thread once the helpers have ended.
#include "CloudSync/Transfer/YPartDownloader.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "CloudSync/YCloudApi.h"
#include "Qel/Exception/YError.h"
#include "Qel/Util/Util.h"

namespace CloudSync {

namespace {

constexpr const char *kFile = "CloudSync/Transfer/YPartDownloader";

using Qel::YString;

struct Batch {
  PartList parts;
  uint64_t offset = 0;  // of the first part in the file
  uint64_t bytes = 0;
};

std::vector<Batch> CutBatches(const MetadataInfo &entry) {
  std::vector<Batch> batches;
  uint64_t offset = 0;
  for (const PartPtr &part : entry.parts) {
    if (batches.empty() || batches.back().bytes >= kDownloadBatchBytes ||
        batches.back().parts.size() >= kDownloadBatchParts) {
      batches.push_back(Batch{{}, offset, 0});
    }
    // A fresh record per part: the same fingerprint may stand at two offsets,
    // and the fetched bytes must not be shared with the caller's entry.
    auto copy = std::make_shared<PartInfo>();
    copy->fingerprint = part->fingerprint;
    copy->size = part->size;
    copy->offset = offset;
    batches.back().parts.push_back(std::move(copy));
    batches.back().bytes += part->size;
    offset += part->size;
  }
  if (offset != entry.size) {  // a short part list would make a short file
    QEL_RAISE(kTransferLogType, kPartsMissing,
              entry.path + ": the listed parts hold " + Qel::Util::NumberToString(offset) + " of " +
                  Qel::Util::NumberToString(entry.size) + " bytes",
              kFile, "Download");
  }
  return batches;
}

void WriteAll(int fd, const unsigned char *bytes, size_t size, uint64_t offset) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = ::pwrite(fd, bytes + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) QEL_RAISE_OS(kTransferLogType, errno, "writing a downloaded part", kFile, "Download");
    done += static_cast<size_t>(n);
  }
}

void FetchAndWrite(YCloudApi &api, Batch &batch, uint64_t fileId, int fd) {
  const size_t got = api.GetParts(batch.parts, fileId);
  if (got != batch.parts.size()) {
    YString text = "Failed to get parts: ";
    for (const PartPtr &part : batch.parts) {
      if (part->data.IsEmpty()) text += part->fingerprint + ", ";
    }
    QEL_RAISE(kTransferLogType, kPartsMissing, text, kFile, "Download");
  }
  for (const PartPtr &part : batch.parts) {
    // The client checked the bytes against the fingerprint; a part of the
    // wrong length must not reach the file either.
    if (part->data.GetCount() != part->size) {
      QEL_RAISE(kTransferLogType, kPartMismatch,
                part->fingerprint + ": " + Qel::Util::NumberToString(part->data.GetCount()) + " bytes received, " +
                    Qel::Util::NumberToString(part->size) + " listed",
                kFile, "Download");
    }
    WriteAll(fd, part->data.Get(), part->size, part->offset);
    part->data.Resize(0);
  }
}

}  // namespace

YPartDownloader::YPartDownloader(std::vector<YCloudApi *> connections) : connections_(std::move(connections)) {}

void YPartDownloader::Download(const MetadataInfo &entry, int fd, const TransferProgressFn &progress,
                               const TransferCancelFn &cancelled) {
  std::vector<Batch> batches = CutBatches(entry);
  std::atomic<size_t> next{0};
  std::atomic<uint64_t> done{0};
  std::atomic<bool> failed{false};
  std::mutex error_mutex;
  std::exception_ptr error;

  auto work = [&](YCloudApi &api, bool caller) {
    uint64_t reported = 0;
    try {
      while (!failed.load()) {
        if (caller && cancelled && cancelled())
          QEL_RAISE(kTransferLogType, kTransferCancelled, entry.path, kFile, "Download");
        const size_t index = next.fetch_add(1);
        if (index >= batches.size()) break;
        if (caller && progress) {
          const uint64_t now = done.load();
          progress(TransferProgress{now, entry.size, now - reported, 0});
          reported = now;
        }
        FetchAndWrite(api, batches[index], entry.id, fd);
        done.fetch_add(batches[index].bytes);
      }
    } catch (...) {
      failed = true;
      std::lock_guard<std::mutex> lock(error_mutex);
      if (!error) error = std::current_exception();
    }
  };

  std::vector<std::thread> helpers;
  for (size_t i = 1; i < connections_.size() && i < batches.size(); ++i) {
    helpers.emplace_back(work, std::ref(*connections_[i]), false);
  }
  work(*connections_.front(), true);
  for (std::thread &t : helpers) t.join();
  if (error) std::rethrow_exception(error);
}

}  // namespace CloudSync
