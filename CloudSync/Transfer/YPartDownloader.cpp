// Download pipeline. Invariants:
// - Batches are cut up front; batch k is fetched by some fetcher into one of
//   that fetcher's buffers, then lands in `fetched` under its index.
// - The calling thread takes batches strictly in index order (with the ones
//   right after them that are already there, so their fingerprints are
//   computed together), checks them and queues them for writing in order.
// - One writer takes queued batches in order, straight to the disk where the
//   file system allows it, and gives each buffer back to its fetcher once
//   written, so a fetcher never refills a buffer still in use.
// - The first failure (fetch, check, write, cancel) sets `stop`; nothing
//   after the failing batch is queued. Every batch before it is written; when
//   a write failed, the file is cut back to where that write began (no part
//   half written is kept), then the failure is raised on the calling thread.
#include "CloudSync/Transfer/YPartDownloader.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "CloudSync/Transfer/YPartsBuffer.h"
#include "CloudSync/YCloudApi.h"
#include "Qel/Crypto/YMd5.h"
#include "Qel/Crypto/YSha1.h"
#include "Qel/Exception/YError.h"
#include "Qel/Util/Util.h"

namespace CloudSync {

namespace {

constexpr const char *kFile = "CloudSync/Transfer/YPartDownloader";
constexpr size_t kBuffersPerFetcher = 2;  // one being filled, one checked or written
constexpr size_t kCheckedTogether = 16;  // parts whose fingerprints are computed in one go
// Checked batches that go to the disk in one call when they are waiting: the
// disk takes 3 MiB at once faster than three writes of 1 MiB, while the other
// buffers keep the fetchers busy.
constexpr size_t kWrittenTogether = 3;

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
    // A fresh record per part: the same fingerprint may stand at two offsets.
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

// Writes parts at their offsets. Whole, page-aligned pages go through a
// second, O_DIRECT descriptor of the same file: they reach the disk without
// filling the page cache, whose fresh pages cost more than the disk write on
// many machines. Anything else, or everything on a file system that refuses
// O_DIRECT, goes through `fd` and the page cache.
class PartWriter {
 public:
  explicit PartWriter(int fd) : fd_(fd) {
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    direct_ = ::open(self.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC);
  }
  ~PartWriter() {
    if (direct_ >= 0) ::close(direct_);
  }
  PartWriter(const PartWriter &) = delete;
  PartWriter &operator=(const PartWriter &) = delete;

  void Write(const unsigned char *bytes, size_t size, uint64_t offset) {
    if (direct_ >= 0 && Aligned(bytes, size, offset)) {
      if (WriteAll(direct_, bytes, size, offset)) return;
      if (errno != EINVAL) Fail();
      // The file system wants other alignments: stay with the page cache.
      ::close(direct_);
      direct_ = -1;
    }
    if (!WriteAll(fd_, bytes, size, offset)) Fail();
  }

  // Writes `pieces`, which lie back to back in the file from `offset`: one
  // call to the disk for all of them when every piece is whole pages,
  // otherwise one Write each.
  void WriteRun(const std::vector<iovec> &pieces, uint64_t offset) {
    bool aligned = direct_ >= 0;
    for (const iovec &piece : pieces)
      aligned = aligned && Aligned(static_cast<const unsigned char *>(piece.iov_base), piece.iov_len, offset);
    if (aligned && pieces.size() > 1) {
      if (WriteAllV(direct_, pieces, offset)) return;
      if (errno != EINVAL) Fail();
    }
    for (const iovec &piece : pieces) {
      Write(static_cast<const unsigned char *>(piece.iov_base), piece.iov_len, offset);
      offset += piece.iov_len;
    }
  }

  // Cuts the file back to `size` bytes (after a failed write); best effort.
  void CutAt(uint64_t size) { (void)::ftruncate(fd_, static_cast<off_t>(size)); }

 private:
  static bool Aligned(const unsigned char *bytes, size_t size, uint64_t offset) {
    constexpr size_t kPage = YPartsBuffer::kAlignment;
    return reinterpret_cast<uintptr_t>(bytes) % kPage == 0 && size % kPage == 0 && offset % kPage == 0;
  }

  static bool WriteAll(int fd, const unsigned char *bytes, size_t size, uint64_t offset) {
    return WriteAllV(fd, {{const_cast<unsigned char *>(bytes), size}}, offset);
  }

  // Writes all of `pieces` from `offset`, going on after short writes.
  static bool WriteAllV(int fd, std::vector<iovec> pieces, uint64_t offset) {
    size_t first = 0;
    while (first < pieces.size()) {
      const int count = static_cast<int>(std::min<size_t>(pieces.size() - first, IOV_MAX));
      const ssize_t n = ::pwritev(fd, pieces.data() + first, count, static_cast<off_t>(offset));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return false;
      offset += static_cast<uint64_t>(n);
      for (size_t left = static_cast<size_t>(n); left > 0;) {  // past what was written
        const size_t step = std::min(left, pieces[first].iov_len);
        pieces[first].iov_base = static_cast<char *>(pieces[first].iov_base) + step;
        pieces[first].iov_len -= step;
        left -= step;
        if (pieces[first].iov_len == 0) ++first;
      }
      while (first < pieces.size() && pieces[first].iov_len == 0) ++first;
    }
    return true;
  }

  [[noreturn]] static void Fail() {
    QEL_RAISE_OS(kTransferLogType, errno, "writing a downloaded part", kFile, "Download");
  }

  int fd_;
  int direct_ = -1;
};

// One fetched batch: where its bytes are, or why there are none.
struct Fetched {
  size_t fetcher = 0;
  size_t slot = 0;
  std::exception_ptr error;
};

class Pipeline {
 public:
  Pipeline(const MetadataInfo &entry, std::vector<Batch> &batches, int fd)
      : entry_(entry), batches_(batches), writer_(fd) {}

  void Run(const std::vector<YCloudApi *> &connections, const TransferProgressFn &progress,
           const TransferCancelFn &cancelled) {
    const size_t fetchers = std::min(connections.size(), batches_.size());
    group_batches_ = std::max<size_t>(1, fetchers * (kBuffersPerFetcher - 1));
    buffers_.resize(fetchers);
    for (auto &slots : buffers_)
      for (auto &slot : slots) slot.buffer = std::make_unique<YPartsBuffer>();
    std::vector<std::thread> threads;
    for (size_t i = 0; i < fetchers; ++i) threads.emplace_back([this, i, &connections] { Fetch(i, *connections[i]); });
    threads.emplace_back([this] { Write(); });
    std::exception_ptr failure;
    try {
      Check(progress, cancelled);
    } catch (...) {
      failure = std::current_exception();
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;  // fetchers end; the writer drains what it was given, then ends
    }
    wake_.notify_all();
    for (std::thread &t : threads) t.join();
    if (write_error_) writer_.CutAt(batches_[failed_write_].offset);  // part of it may be in
    if (failure) std::rethrow_exception(failure);
    if (write_error_) std::rethrow_exception(write_error_);
  }

 private:
  struct Slot {
    std::unique_ptr<YPartsBuffer> buffer;
    std::vector<YString> sha1;  // of each part of the batch in it, in batch order
    bool busy = false;
  };
  struct Checked {
    size_t index;
    Fetched where;
  };

  void Fetch(size_t fetcher, YCloudApi &api) {
    while (true) {
      size_t index = 0, slot = 0;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [&] { return stop_ || FreeSlot(fetcher) < kBuffersPerFetcher; });
        if (stop_ || next_ >= batches_.size()) return;
        index = next_++;
        slot = FreeSlot(fetcher);
        buffers_[fetcher][slot].busy = true;
      }
      Fetched got{fetcher, slot, nullptr};
      try {
        Slot &into = buffers_[fetcher][slot];
        api.ReceiveParts(batches_[index].parts, entry_.id, *into.buffer);
        // The SHA-1 half of the check runs here, on as many threads as there
        // are connections; the MD5 half runs on the calling thread, for several
        // batches at once.
        into.sha1.clear();
        Qel::Crypto::YSha1 sha1;
        for (const PartPtr &part : batches_[index].parts) {
          size_t size = 0;
          const unsigned char *bytes = into.buffer->Find(part->fingerprint, size);
          sha1.Update(bytes, bytes != nullptr ? size : 0);
          into.sha1.push_back(sha1.Finalize());
        }
      } catch (...) {
        got.error = std::current_exception();
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        fetched_[index] = got;
      }
      wake_.notify_all();
      if (got.error) return;
    }
  }

  // Whether batches [first, first + count) are all fetched, or one of those
  // fetched failed (nothing after it will be needed).
  bool GroupReady(size_t first, size_t count) const {
    for (size_t k = first; k < first + count; ++k) {
      const auto it = fetched_.find(k);
      if (it == fetched_.end()) return false;
      if (it->second.error) return true;
    }
    return true;
  }

  size_t FreeSlot(size_t fetcher) const {
    for (size_t s = 0; s < kBuffersPerFetcher; ++s)
      if (!buffers_[fetcher][s].busy) return s;
    return kBuffersPerFetcher;
  }

  // The calling thread: takes batches in order, checks them, hands them on.
  void Check(const TransferProgressFn &progress, const TransferCancelFn &cancelled) {
    uint64_t done = 0, reported = 0;
    size_t expected = 0;
    while (expected < batches_.size()) {
      if (cancelled && cancelled()) QEL_RAISE(kTransferLogType, kTransferCancelled, entry_.path, kFile, "Download");
      std::vector<Checked> group;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        // Waits for a full group when one can come: MD5 runs side by side for
        // a group, and one part alone costs as much as four together.
        const size_t wanted = std::min(group_batches_, batches_.size() - expected);
        wake_.wait(lock, [&] { return GroupReady(expected, wanted) || write_error_; });
        if (write_error_) return;
        size_t parts = 0;
        for (size_t k = expected; fetched_.count(k) > 0; ++k) {
          if (!group.empty() && parts + batches_[k].parts.size() > kCheckedTogether) break;
          group.push_back({k, fetched_[k]});
          fetched_.erase(k);
          parts += batches_[k].parts.size();
          if (group.back().where.error) break;
        }
      }
      // Fingerprints of every part the group received, computed together.
      std::vector<const unsigned char *> bytes;
      std::vector<size_t> sizes;
      for (const Checked &c : group) {
        if (c.where.error) break;
        const YPartsBuffer &buffer = *buffers_[c.where.fetcher][c.where.slot].buffer;
        for (const PartPtr &part : batches_[c.index].parts) {
          size_t size = 0;
          bytes.push_back(buffer.Find(part->fingerprint, size));  // null: the answer left it out
          sizes.push_back(size);
        }
      }
      std::vector<YString> computed = Qel::Crypto::YMd5::DigestMany(bytes.data(), sizes.data(), bytes.size());
      size_t joined = 0;
      for (const Checked &c : group) {
        if (c.where.error) break;
        for (const YString &sha1 : buffers_[c.where.fetcher][c.where.slot].sha1) computed[joined++] += sha1;
      }
      size_t at = 0;
      for (const Checked &c : group) {
        if (progress) {
          progress(TransferProgress{done, entry_.size, done - reported, 0});
          reported = done;
        }
        if (c.where.error) std::rethrow_exception(c.where.error);
        for (const PartPtr &part : batches_[c.index].parts) {
          if (bytes[at] == nullptr) {
            QEL_RAISE(kTransferLogType, kPartsMissing, "Failed to get parts: " + part->fingerprint + ", ", kFile,
                      "Download");
          }
          YCloudApi::CheckPartBytes(*part, sizes[at], computed[at]);
          ++at;
        }
        {
          std::lock_guard<std::mutex> lock(mutex_);
          to_write_.push_back(c);
        }
        wake_.notify_all();
        done += batches_[c.index].bytes;
        ++expected;
      }
    }
  }

  // The writer thread: takes checked batches in order, several at once when
  // they are waiting (one call to the disk for all of them), writes them,
  // then frees their buffers; after a failed write it only gives buffers back.
  void Write() {
    while (true) {
      std::vector<Checked> group;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [&] { return stop_ || !to_write_.empty(); });
        if (to_write_.empty()) return;  // stopped, and nothing left to write
        while (!to_write_.empty() && group.size() < kWrittenTogether) {
          group.push_back(to_write_.front());
          to_write_.pop_front();
        }
      }
      // Only this thread sets write_error_; after it, batches go back unwritten.
      if (!write_error_) {
        try {
          WriteGroup(group);
        } catch (...) {
          std::lock_guard<std::mutex> lock(mutex_);
          write_error_ = std::current_exception();
          failed_write_ = group.front().index;
          stop_ = true;
        }
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const Checked &c : group) buffers_[c.where.fetcher][c.where.slot].busy = false;
      }
      wake_.notify_all();
    }
  }

  // Batches come in file order, so their parts lie back to back from the
  // first one's offset.
  void WriteGroup(const std::vector<Checked> &group) {
    std::vector<iovec> pieces;
    for (const Checked &c : group) {
      const YPartsBuffer &buffer = *buffers_[c.where.fetcher][c.where.slot].buffer;
      for (const PartPtr &part : batches_[c.index].parts) {
        size_t size = 0;
        const unsigned char *bytes = buffer.Find(part->fingerprint, size);
        pieces.push_back({const_cast<unsigned char *>(bytes), size});
      }
    }
    writer_.WriteRun(pieces, batches_[group.front().index].offset);
  }

  const MetadataInfo &entry_;
  std::vector<Batch> &batches_;
  PartWriter writer_;
  std::vector<std::array<Slot, kBuffersPerFetcher>> buffers_;
  std::mutex mutex_;
  std::condition_variable wake_;
  // Batches the calling thread waits for to check them together: one per
  // fetcher, so that they come at once while each fetcher's other buffer
  // takes the next group.
  size_t group_batches_ = 1;
  size_t next_ = 0;                  // the next batch a fetcher takes
  std::map<size_t, Fetched> fetched_;  // fetched, not yet taken by the calling thread
  std::deque<Checked> to_write_;     // checked, in file order
  std::exception_ptr write_error_;  // of the batch whose write failed...
  size_t failed_write_ = 0;          // ...which is this one
  bool stop_ = false;
};

}  // namespace

YPartDownloader::YPartDownloader(std::vector<YCloudApi *> connections) : connections_(std::move(connections)) {}

void YPartDownloader::Download(const MetadataInfo &entry, int fd, const TransferProgressFn &progress,
                               const TransferCancelFn &cancelled) {
  std::vector<Batch> batches = CutBatches(entry);
  if (batches.empty()) return;
  Pipeline pipeline(entry, batches, fd);
  pipeline.Run(connections_, progress, cancelled);
}

}  // namespace CloudSync
