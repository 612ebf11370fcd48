#include "Qel/Crypto/YBbsHash.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

namespace Qel::Crypto {

namespace {
// Small enough to stay in a first- or second-level cache while both digests
// read it.
constexpr size_t kSlice = 32 * 1024;
// Below this a hand-over to the helper costs more than it saves.
constexpr size_t kParallelMinimum = 64 * 1024;
}  // namespace

// Runs one digest's updates on its own thread, one buffer at a time.
class YBbsHash::Helper {
 public:
  explicit Helper(YDigest& digest) : digest_(digest), thread_([this] { Run(); }) {}
  ~Helper() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }

  void Start(const unsigned char* bytes, size_t count) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      bytes_ = bytes;
      count_ = count;
      busy_ = true;
    }
    wake_.notify_all();
  }

  // Waits for the buffer given to Start; rethrows the digest's failure.
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return !busy_; });
    if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
      wake_.wait(lock, [this] { return stop_ || busy_; });
      if (stop_) return;
      lock.unlock();
      std::exception_ptr error;
      try {
        digest_.Update(bytes_, count_);
      } catch (...) {
        error = std::current_exception();
      }
      lock.lock();
      error_ = error;
      busy_ = false;
      wake_.notify_all();
    }
  }

  YDigest& digest_;
  std::mutex mutex_;
  std::condition_variable wake_;
  const unsigned char* bytes_ = nullptr;
  size_t count_ = 0;
  bool busy_ = false;
  bool stop_ = false;
  std::exception_ptr error_;
  std::thread thread_;  // last: starts once everything above exists
};

YBbsHash::YBbsHash(bool parallel) { SetParallel(parallel); }

void YBbsHash::SetParallel(bool parallel) {
  if (parallel && !helper_) helper_ = std::make_unique<Helper>(sha1_);
  parallel_ = parallel;
}

YBbsHash::~YBbsHash() = default;

void YBbsHash::Update(const void* bytes, size_t count) {
  const unsigned char* p = static_cast<const unsigned char*>(bytes);
  if (parallel_ && count >= kParallelMinimum) {
    helper_->Start(p, count);
    try {
      md5_.Update(p, count);
    } catch (...) {
      helper_->Wait();  // the helper must be done with the bytes before they go
      throw;
    }
    helper_->Wait();
    return;
  }
  while (count > 0) {
    const size_t n = std::min(count, kSlice);
    md5_.Update(p, n);
    sha1_.Update(p, n);
    p += n;
    count -= n;
  }
}

YString YBbsHash::Finalize() {
  YString fingerprint = md5_.Finalize();
  fingerprint += sha1_.Finalize();
  return fingerprint;
}

YString YBbsHash::Fingerprint(const void* bytes, size_t count) {
  YBbsHash hash;
  hash.Update(bytes, count);
  return hash.Finalize();
}

std::vector<YString> YBbsHash::Fingerprints(const unsigned char* const* buffers, const size_t* sizes, size_t count) {
  std::vector<YString> out = YMd5::DigestMany(buffers, sizes, count);
  YSha1 sha1;
  for (size_t i = 0; i < count; ++i) {
    sha1.Update(buffers[i], sizes[i]);
    out[i] += sha1.Finalize();
  }
  return out;
}

}  // namespace Qel::Crypto
