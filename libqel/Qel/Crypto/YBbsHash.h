// Qel::Crypto::YBbsHash: the part fingerprint, MD5 and SHA-1 over the same
// bytes.
//
// One object lives for a whole file: feed a part's bytes with Update, then
// Finalize returns the part's fingerprint, the MD5 hex immediately followed by
// the SHA-1 hex (72 lower-case hex characters), and both digests start over
// for the next part.
//
// In parallel mode the object owns a helper thread: an Update of a large
// buffer runs SHA-1 on the helper while MD5 runs on the caller's thread, and
// returns when both are done (same results, about the time of MD5 alone, at
// the cost of a second busy core).
// Thread-safety: none; one thread at a time per object.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "Qel/Crypto/YMd5.h"
#include "Qel/Crypto/YSha1.h"
#include "Qel/YString.h"

namespace Qel::Crypto {

class YBbsHash {
 public:
  // Length of a fingerprint in characters.
  static constexpr size_t kFingerprintLength = 72;

  explicit YBbsHash(bool parallel = false);
  ~YBbsHash();
  YBbsHash(const YBbsHash&) = delete;
  YBbsHash& operator=(const YBbsHash&) = delete;

  // Switches parallel mode on or off between updates (the helper thread,
  // once started, stays until the object goes).
  void SetParallel(bool parallel);
  bool IsParallel() const { return parallel_; }

  void Update(const void* bytes, size_t count);
  YString Finalize();

  // The fingerprint of one buffer (a fresh pair of digests).
  static YString Fingerprint(const void* bytes, size_t count);
  // The fingerprints of `count` buffers at once: out[i] is the fingerprint of
  // sizes[i] bytes at buffers[i]. Several buffers cost far less than one
  // after the other (their MD5s run side by side in vector registers).
  // Thread-safe.
  static std::vector<YString> Fingerprints(const unsigned char* const* buffers, const size_t* sizes, size_t count);

  YMd5& GetMd5() { return md5_; }
  YSha1& GetSha1() { return sha1_; }
  const char* GetName() const { return "YBbsHash"; }

 private:
  class Helper;

  YMd5 md5_;
  YSha1 sha1_;
  std::unique_ptr<Helper> helper_;
  bool parallel_ = false;
};

}  // namespace Qel::Crypto
