// Qel::Crypto::YDigest: an incremental message digest over OpenSSL's EVP
// interface, the common ground of YMd5 and YSha1.
//
// Update feeds bytes; Finalize returns the digest of everything fed since the
// last Finalize (or construction) as lower-case hex text and starts a new
// digest, so one object can name a run of parts one after another. Failures
// of the crypto library raise code 1 (log type 43). Thread-safety: none; one
// thread at a time per object.
#pragma once

#include <cstddef>

#include "Qel/YString.h"

namespace Qel::Crypto {

class YDigest {
 public:
  YDigest(const YDigest&) = delete;
  YDigest& operator=(const YDigest&) = delete;
  virtual ~YDigest();

  void Update(const void* bytes, size_t count);
  YString Finalize();
  // Size of the digest in bytes (its hex text is twice as long).
  size_t GetDigestSize() const;

 protected:
  // `algorithm` is an OpenSSL digest name ("MD5", "SHA1").
  explicit YDigest(const char* algorithm);

 private:
  void Restart();

  void* md_ = nullptr;   // EVP_MD*
  void* ctx_ = nullptr;  // EVP_MD_CTX*
};

}  // namespace Qel::Crypto
