// Upload: the calling thread reads a batch of five parts in one go into a
// buffer, fingerprints the five together and hands the batch to the next of
// the background senders (one per connection), which asks the cloud what it
// lacks and sends exactly those parts straight from that buffer. The sender
// gives the buffer back as soon as the connection has taken the bytes, and
// then waits for the cloud to store them, so connections waiting on the
// cloud's disk hold no memory. Meanwhile the caller reads and fingerprints
// the next batch into a free buffer. So the bytes sent are the bytes
// fingerprinted, every buffer is reused for the whole file, and only the
// batches being read or sent hold bytes. Every
// read checks that the file did not change since it was opened (else 184),
// and the cloud checks every part's bytes against its fingerprint. Batches
// are reported in the order they were handed out, on the calling thread.
#include "CloudSync/Transfer/YPartUploader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "CloudSync/YCloudApi.h"
#include "Qel/Crypto/YBbsHash.h"
#include "Qel/File/PageCache.h"
#include "Qel/Exception/YError.h"

namespace CloudSync {

namespace {

constexpr const char *kFile = "CloudSync/Transfer/YPartUploader";

// Batch buffers of one upload, whatever the number of connections: one being
// read and fingerprinted, the others being taken by connections. A connection
// waiting for the cloud's answer holds none.
constexpr size_t kUploadBuffers = 3;

using Qel::YString;

constexpr size_t kBatchBytes = kUploadBatchParts * kTransferPartSize;
constexpr uint64_t kFolioBytes = 2 << 20;  // the largest folio of the page cache (x86-64)

bool SameVersion(const struct stat &a, const struct stat &b) {
  return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Which batches of the open file `fd` (of `size` bytes) the page cache holds
// whole, one flag per batch.
std::vector<bool> CachedBatches(int fd, uint64_t size) {
  std::vector<bool> cached((size + kBatchBytes - 1) / kBatchBytes);
  for (size_t b = 0; b < cached.size(); ++b) {
    const uint64_t start = b * kBatchBytes;
    const size_t bytes = static_cast<size_t>(std::min<uint64_t>(kBatchBytes, size - start));
    cached[b] = Qel::File::PageCacheHoldsWhole(fd, start, bytes);
  }
  return cached;
}

// One open file: reads parts by offset and refuses (184) once the file is no
// longer the version it was when opened (another size or modification time,
// or cut short). It leaves the page cache as it found it: a batch the cache
// did not hold whole at the start is dropped from it once read, so the
// kernel's read-ahead takes the pages just given back instead of fresh memory
// (which costs more than the disk read on many machines), and a file that was
// in the cache stays there.
class PartSource {
 public:
  PartSource(const YString &path, const char *function) : path_(path), function_(function) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) QEL_RAISE_OS(kTransferLogType, errno, path, kFile, function);
    if (::fstat(fd_, &opened_) != 0) {
      const int err = errno;
      ::close(fd_);
      QEL_RAISE_OS(kTransferLogType, err, path, kFile, function);
    }
    cached_ = CachedBatches(fd_, Size());
  }
  ~PartSource() {
    DropIfNotCached(last_offset_, last_size_);
    ::close(fd_);
  }
  PartSource(const PartSource &) = delete;
  PartSource &operator=(const PartSource &) = delete;

  // Reads up to `size` bytes at `offset`; fewer only at the end of the file.
  // REQUIRES: `offset` is a multiple of the batch size.
  size_t Read(unsigned char *into, size_t size, uint64_t offset) const {
    size_t done = 0;
    while (done < size) {
      const ssize_t n = ::pread(fd_, into + done, size - done, static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) QEL_RAISE_OS(kTransferLogType, errno, path_, kFile, function_);
      if (n == 0) break;
      done += static_cast<size_t>(n);
    }
    // The batch before this one goes now, not this one: the dropped range
    // reaches into the batch that follows, and by now that batch is read.
    DropIfNotCached(last_offset_, last_size_);
    last_offset_ = offset;
    last_size_ = done;
    return done;
  }

  void Check() const {
    struct stat now;
    if (::fstat(fd_, &now) != 0) QEL_RAISE_OS(kTransferLogType, errno, path_, kFile, function_);
    if (!SameVersion(now, opened_)) Changed();
  }

  [[noreturn]] void Changed() const { QEL_RAISE(kTransferLogType, kFileChangedWhileRead, path_, kFile, function_); }

  const struct stat &Opened() const { return opened_; }
  uint64_t Size() const { return static_cast<uint64_t>(opened_.st_size); }

 private:
  // Drops a batch that was not whole in the cache, widened to whole blocks of
  // kFolioBytes: the kernel drops only the folios that lie wholly inside the
  // range, and a batch does not begin or end on a folio's edge.
  void DropIfNotCached(uint64_t offset, size_t size) const {
    const size_t batch = static_cast<size_t>(offset / kBatchBytes);
    if (size == 0 || (batch < cached_.size() && cached_[batch])) return;
    const uint64_t from = offset / kFolioBytes * kFolioBytes;
    const uint64_t to = (offset + size + kFolioBytes - 1) / kFolioBytes * kFolioBytes;
    (void)::posix_fadvise(fd_, static_cast<off_t>(from), static_cast<off_t>(to - from), POSIX_FADV_DONTNEED);
  }

  YString path_;
  const char *function_;
  int fd_ = -1;
  struct stat opened_ {};
  std::vector<bool> cached_;  // per batch: whole in the page cache when opened
  mutable uint64_t last_offset_ = 0;  // the batch read last (only the calling thread reads)
  mutable size_t last_size_ = 0;
};

// The bytes of one batch: up to five parts, read in one go.
class BatchBuffer {
 public:
  BatchBuffer() : bytes_(new unsigned char[kBatchBytes]) {}
  unsigned char *Data() { return bytes_.get(); }

 private:
  std::unique_ptr<unsigned char[]> bytes_;
};

struct Batch {
  PartList parts;
  std::vector<std::string_view> bytes;  // of each part, inside `buffer`
  std::unique_ptr<BatchBuffer> buffer;
  uint64_t bytesTotal = 0;
  uint64_t doneAfter = 0;
  size_t partsSent = 0;
};

// Reads the next batch at `offset` into `buffer` and fingerprints its parts
// together. Empty at the end of the file.
Batch ReadBatch(const PartSource &source, std::unique_ptr<BatchBuffer> buffer, uint64_t offset) {
  Batch batch;
  const size_t read = source.Read(buffer->Data(), kBatchBytes, offset);
  std::vector<const unsigned char *> starts;
  std::vector<size_t> sizes;
  for (size_t at = 0; at < read; at += kTransferPartSize) {
    starts.push_back(buffer->Data() + at);
    sizes.push_back(std::min(kTransferPartSize, read - at));
  }
  const std::vector<YString> fingerprints = Qel::Crypto::YBbsHash::Fingerprints(starts.data(), sizes.data(), starts.size());
  for (size_t i = 0; i < starts.size(); ++i) {
    auto part = std::make_shared<PartInfo>();
    part->fingerprint = fingerprints[i];
    part->size = static_cast<uint32_t>(sizes[i]);
    part->offset = offset + (starts[i] - buffer->Data());
    batch.parts.push_back(std::move(part));
    batch.bytes.emplace_back(reinterpret_cast<const char *>(starts[i]), sizes[i]);
  }
  source.Check();  // the bytes read are the version that was opened
  batch.bytesTotal = read;
  batch.doneAfter = offset + read;
  batch.buffer = std::move(buffer);
  return batch;
}

// The batch buffers of one upload: at most `limit`, made when first needed
// and handed back by the senders as soon as the connection has taken their
// bytes, so that the reader is never held up by the cloud's answer.
class BufferPool {
 public:
  explicit BufferPool(size_t limit) : limit_(limit) {}

  // A free buffer; waits while all `limit` are in use.
  std::unique_ptr<BatchBuffer> Take() {
    std::unique_lock<std::mutex> lock(mutex_);
    free_changed_.wait(lock, [this] { return !free_.empty() || made_ < limit_; });
    if (free_.empty()) {
      ++made_;
      return std::make_unique<BatchBuffer>();
    }
    std::unique_ptr<BatchBuffer> buffer = std::move(free_.back());
    free_.pop_back();
    return buffer;
  }

  // Callable from any thread. Ignores an empty pointer.
  void Give(std::unique_ptr<BatchBuffer> buffer) {
    if (!buffer) return;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      free_.push_back(std::move(buffer));
    }
    free_changed_.notify_one();
  }

 private:
  const size_t limit_;
  std::mutex mutex_;
  std::condition_variable free_changed_;
  std::vector<std::unique_ptr<BatchBuffer>> free_;
  size_t made_ = 0;
};

// Hands upload batches to one background thread, one batch at a time; the
// thread sends it and gives its buffer back to the pool once the connection
// has taken the bytes, then waits for the cloud's answer. Send first waits
// for the batch before (rethrowing its failure) and reports it through
// `onSent` on the calling thread.
class BatchSender {
 public:
  using SentCallback = std::function<void(uint64_t bytes, uint64_t doneAfter, size_t partsSent)>;

  BatchSender(YCloudApi &api, BufferPool &pool, SentCallback onSent)
      : api_(api), pool_(pool), on_sent_(std::move(onSent)), thread_([this] { Run(); }) {}

  // A batch still in flight ends first (its failure no longer matters: an
  // error is already on its way); nothing queued is sent any more.
  ~BatchSender() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  BatchSender(const BatchSender &) = delete;
  BatchSender &operator=(const BatchSender &) = delete;

  void Send(Batch batch) {
    Finish();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      job_ = std::move(batch);
      busy_ = true;
    }
    wake_.notify_all();
  }

  // Waits for the batch in flight, if any, and reports it.
  void Finish() {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return !busy_; });
    if (!sent_) return;
    const Batch sent = std::move(*sent_);
    sent_.reset();
    std::exception_ptr error = std::exchange(error_, nullptr);
    lock.unlock();
    if (error) std::rethrow_exception(error);
    on_sent_(sent.bytesTotal, sent.doneAfter, sent.partsSent);
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
      wake_.wait(lock, [this] { return stop_ || job_.has_value(); });
      if (stop_) return;
      Batch job = std::move(*job_);
      job_.reset();
      lock.unlock();
      std::exception_ptr error;
      try {
        job.partsSent = api_.SendParts(job.parts, job.bytes, [&] { pool_.Give(std::move(job.buffer)); });
      } catch (...) {
        error = std::current_exception();
      }
      pool_.Give(std::move(job.buffer));  // when the bytes were never taken
      job.bytes.clear();                  // they pointed into the buffer
      lock.lock();
      error_ = error;
      sent_ = std::move(job);
      busy_ = false;
      wake_.notify_all();
    }
  }

  YCloudApi &api_;
  BufferPool &pool_;
  SentCallback on_sent_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::optional<Batch> job_;   // handed over, not yet taken by the thread
  std::optional<Batch> sent_;  // done, not yet reported
  std::exception_ptr error_;
  bool busy_ = false;
  bool stop_ = false;
  std::thread thread_;  // last: starts once everything above exists
};

}  // namespace

YPartUploader::YPartUploader(std::vector<YCloudApi *> connections) : connections_(std::move(connections)) {}

PartList YPartUploader::Upload(const YString &localFile, const TransferProgressFn &progress,
                               const TransferCancelFn &cancelled, struct stat *stat) {
  const PartSource source(localFile, "Upload");
  const uint64_t total = source.Size();
  auto onSent = [&](uint64_t bytes, uint64_t doneAfter, size_t partsSent) {
    if (progress) progress(TransferProgress{doneAfter, total, bytes, partsSent});
  };
  const size_t wanted = std::max<size_t>(1, std::min<uint64_t>(connections_.size(), total / kBatchBytes + 1));
  BufferPool pool(std::min(wanted + 1, kUploadBuffers));  // before the senders, which give buffers back
  std::vector<std::unique_ptr<BatchSender>> senders;
  for (size_t i = 0; i < wanted; ++i) senders.push_back(std::make_unique<BatchSender>(*connections_[i], pool, onSent));

  PartList parts;
  uint64_t offset = 0;
  size_t next = 0;  // the sender that takes the next batch
  while (true) {
    Batch batch = ReadBatch(source, pool.Take(), offset);
    if (batch.parts.empty()) break;
    parts.insert(parts.end(), batch.parts.begin(), batch.parts.end());
    offset = batch.doneAfter;
    const bool last = batch.bytesTotal < kBatchBytes;
    if (cancelled && cancelled()) QEL_RAISE(kTransferLogType, kTransferCancelled, localFile, kFile, "Upload");
    senders[next]->Send(std::move(batch));
    next = (next + 1) % senders.size();
    if (last) break;
  }
  if (offset != total) source.Changed();
  // Report the remaining batches in the order they were handed out.
  for (size_t i = 0; i < senders.size(); ++i) senders[(next + i) % senders.size()]->Finish();
  source.Check();
  if (stat) *stat = source.Opened();
  return parts;
}

PartList FingerprintFile(const YString &localFile, struct stat *stat) {
  const PartSource source(localFile, "FingerprintFile");
  PartList parts;
  std::unique_ptr<BatchBuffer> buffer = std::make_unique<BatchBuffer>();
  uint64_t offset = 0;
  while (true) {
    Batch batch = ReadBatch(source, std::move(buffer), offset);
    parts.insert(parts.end(), batch.parts.begin(), batch.parts.end());
    offset = batch.doneAfter;
    buffer = std::move(batch.buffer);
    if (batch.bytesTotal < kBatchBytes) break;
  }
  if (offset != source.Size()) source.Changed();
  source.Check();
  if (stat) *stat = source.Opened();
  return parts;
}

}  // namespace CloudSync
