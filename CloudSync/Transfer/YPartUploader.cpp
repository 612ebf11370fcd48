// Upload: the calling thread reads and fingerprints the parts; one background
// sender per connection sends a full batch while the caller goes on with the
// next, so hashing here overlaps with the cloud's own checking of what it
// receives. A sender fills its batch's part data from the file just before it
// sends it and empties it right after, so only the batches in flight hold
// bytes. Every fill checks that the file did not change since it was opened
// (else 184), and the cloud checks every part's bytes against its
// fingerprint. Batches are handed to the senders in turn and reported in the
// same order on the calling thread.
#include "CloudSync/Transfer/YPartUploader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "CloudSync/YCloudApi.h"
#include "Qel/Crypto/YBbsHash.h"
#include "Qel/Exception/YError.h"

namespace CloudSync {

namespace {

constexpr const char *kFile = "CloudSync/Transfer/YPartUploader";

using Qel::YString;

bool SameVersion(const struct stat &a, const struct stat &b) {
  return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Empties the part bytes of a batch, also when the send failed.
struct BatchDataRelease {
  const PartList &batch;
  ~BatchDataRelease() {
    for (const PartPtr &part : batch) part->data.Resize(0);
  }
};

// One open file: reads parts by offset and refuses (184) once the file is no
// longer the version it was when opened (another size or modification time,
// or cut short).
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
  }
  ~PartSource() { ::close(fd_); }
  PartSource(const PartSource &) = delete;
  PartSource &operator=(const PartSource &) = delete;

  // Reads up to `size` bytes at `offset`; fewer only at the end of the file.
  size_t Read(unsigned char *into, size_t size, uint64_t offset) const {
    size_t done = 0;
    while (done < size) {
      const ssize_t n = ::pread(fd_, into + done, size - done, static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) QEL_RAISE_OS(kTransferLogType, errno, path_, kFile, function_);
      if (n == 0) break;
      done += static_cast<size_t>(n);
    }
    return done;
  }

  void Fill(const PartList &batch) const {
    for (const PartPtr &part : batch) {
      part->data.Resize(part->size);
      if (Read(part->data.Get(), part->size, part->offset) != part->size) Changed();
    }
    Check();
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
  YString path_;
  const char *function_;
  int fd_ = -1;
  struct stat opened_ {};
};

// Hands upload batches to one background thread, one batch at a time; the
// thread fills the batch's part data, sends it and empties it. Send first
// waits for the batch before (rethrowing its failure) and reports it through
// `onSent` on the calling thread.
class BatchSender {
 public:
  using SentCallback = std::function<void(uint64_t bytes, uint64_t doneAfter, size_t partsSent)>;

  BatchSender(YCloudApi &api, const PartSource &source, SentCallback onSent)
      : api_(api), source_(source), on_sent_(std::move(onSent)), thread_([this] { Run(); }) {}

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

  void Send(PartList batch, uint64_t bytes, uint64_t doneAfter) {
    Finish();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      job_ = Job{std::move(batch), bytes, doneAfter};
      busy_ = true;
    }
    wake_.notify_all();
  }

  // Waits for the batch in flight, if any, and reports it.
  void Finish() {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return !busy_; });
    if (!sent_) return;
    const Job sent = std::move(*sent_);
    sent_.reset();
    std::exception_ptr error = std::exchange(error_, nullptr);
    lock.unlock();
    if (error) std::rethrow_exception(error);
    on_sent_(sent.bytes, sent.done_after, sent.parts_sent);
  }

 private:
  struct Job {
    PartList batch;
    uint64_t bytes = 0;
    uint64_t done_after = 0;
    size_t parts_sent = 0;
  };

  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
      wake_.wait(lock, [this] { return stop_ || job_.has_value(); });
      if (stop_) return;
      Job job = std::move(*job_);
      job_.reset();
      lock.unlock();
      std::exception_ptr error;
      try {
        BatchDataRelease release{job.batch};
        source_.Fill(job.batch);
        job.parts_sent = api_.SendNeededParts(job.batch, 0);
      } catch (...) {
        error = std::current_exception();
      }
      job.batch.clear();
      lock.lock();
      error_ = error;
      sent_ = std::move(job);
      busy_ = false;
      wake_.notify_all();
    }
  }

  YCloudApi &api_;
  const PartSource &source_;
  SentCallback on_sent_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::optional<Job> job_;   // handed over, not yet taken by the thread
  std::optional<Job> sent_;  // done, not yet reported
  std::exception_ptr error_;
  bool busy_ = false;
  bool stop_ = false;
  std::thread thread_;  // last: starts once everything above exists
};

// Cuts the file into parts and fingerprints them in order, calling
// `onPart(part, doneAfter)` for each. SHA-1 runs on a helper thread when
// `parallel` says so (see YBbsHash).
template <typename OnPart>
void CutParts(const PartSource &source, Qel::Crypto::YBbsHash &hash, OnPart onPart) {
  std::unique_ptr<unsigned char[]> buffer(new unsigned char[kTransferPartSize]);
  uint64_t offset = 0;
  while (true) {
    const size_t read = source.Read(buffer.get(), kTransferPartSize, offset);
    if (read == 0) break;
    hash.Update(buffer.get(), read);
    auto part = std::make_shared<PartInfo>();
    part->fingerprint = hash.Finalize();
    part->size = static_cast<uint32_t>(read);
    part->offset = offset;
    offset += read;
    onPart(part, offset);
    if (read < kTransferPartSize) break;
  }
  if (offset != source.Size()) source.Changed();
}

}  // namespace

YPartUploader::YPartUploader(std::vector<YCloudApi *> connections) : connections_(std::move(connections)) {}

PartList YPartUploader::Upload(const YString &localFile, const TransferProgressFn &progress,
                               const TransferCancelFn &cancelled, struct stat *stat) {
  const PartSource source(localFile, "Upload");
  const uint64_t total = source.Size();
  // SHA-1 runs on a helper thread while MD5 runs here whenever a second core
  // is free: with four cores or more, else while the cloud already holds the
  // parts (then it is idle; otherwise it checks what it receives, on that
  // core). Small files are not worth the thread.
  const bool manyCores = std::thread::hardware_concurrency() >= 4;
  Qel::Crypto::YBbsHash hash(total >= kTransferPartSize);
  auto onSent = [&](uint64_t bytes, uint64_t doneAfter, size_t partsSent) {
    hash.SetParallel(total >= kTransferPartSize && (manyCores || partsSent == 0));
    if (progress) progress(TransferProgress{doneAfter, total, bytes, partsSent});
  };
  std::vector<std::unique_ptr<BatchSender>> senders;
  for (YCloudApi *api : connections_) senders.push_back(std::make_unique<BatchSender>(*api, source, onSent));

  PartList parts;
  PartList batch;
  uint64_t batchBytes = 0;
  size_t next = 0;  // the sender that takes the next batch
  auto send = [&](uint64_t doneAfter) {
    if (cancelled && cancelled()) QEL_RAISE(kTransferLogType, kTransferCancelled, localFile, kFile, "Upload");
    senders[next]->Send(std::move(batch), batchBytes, doneAfter);
    next = (next + 1) % senders.size();
    batch.clear();
    batchBytes = 0;
  };
  uint64_t doneAfter = 0;
  CutParts(source, hash, [&](const PartPtr &part, uint64_t done) {
    parts.push_back(part);
    batch.push_back(part);
    batchBytes += part->size;
    doneAfter = done;
    if (batch.size() == kUploadBatchParts) send(doneAfter);
  });
  if (!batch.empty()) send(doneAfter);
  // Report the remaining batches in the order they were handed out.
  for (size_t i = 0; i < senders.size(); ++i) senders[(next + i) % senders.size()]->Finish();
  source.Check();
  if (stat) *stat = source.Opened();
  return parts;
}

PartList FingerprintFile(const YString &localFile, struct stat *stat) {
  const PartSource source(localFile, "FingerprintFile");
  Qel::Crypto::YBbsHash hash(source.Size() >= kTransferPartSize && std::thread::hardware_concurrency() >= 2);
  PartList parts;
  CutParts(source, hash, [&](const PartPtr &part, uint64_t) { parts.push_back(part); });
  source.Check();
  if (stat) *stat = source.Opened();
  return parts;
}

}  // namespace CloudSync
