// Qel::Crypto::YBbsHash: the part fingerprint, MD5 and SHA-1 over the same
// bytes.
//
// One object lives for a whole file: feed a part's bytes with Update, then
// Finalize returns the part's fingerprint, the MD5 hex immediately followed by
// the SHA-1 hex (72 lower-case hex characters), and both digests start over
// for the next part. Thread-safety: none; one thread at a time per object.
#pragma once

#include <cstddef>

#include "Qel/Crypto/YMd5.h"
#include "Qel/Crypto/YSha1.h"
#include "Qel/YString.h"

namespace Qel::Crypto {

class YBbsHash {
 public:
  // Length of a fingerprint in characters.
  static constexpr size_t kFingerprintLength = 72;

  YBbsHash() = default;

  // Feeds both digests. Long inputs are fed in slices that stay in the
  // processor's cache between the two passes.
  void Update(const void* bytes, size_t count);
  YString Finalize();

  // The fingerprint of one buffer (a fresh pair of digests).
  static YString Fingerprint(const void* bytes, size_t count);

  YMd5& GetMd5() { return md5_; }
  YSha1& GetSha1() { return sha1_; }
  const char* GetName() const { return "YBbsHash"; }

 private:
  YMd5 md5_;
  YSha1 sha1_;
};

}  // namespace Qel::Crypto
