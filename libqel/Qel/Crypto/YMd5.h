// Qel::Crypto::YMd5: incremental MD5 (see YDigest); Finalize gives 32
// lower-case hex characters.
#pragma once

#include <cstddef>
#include <vector>

#include "Qel/Crypto/YDigest.h"

namespace Qel::Crypto {

class YMd5 : public YDigest {
 public:
  YMd5();

  // The MD5 hex of each of `count` buffers (sizes[i] bytes at buffers[i]),
  // computed side by side in the CPU's vector lanes: several buffers take
  // about the time of one. Thread-safe.
  static std::vector<YString> DigestMany(const unsigned char* const* buffers, const size_t* sizes, size_t count);
};

}  // namespace Qel::Crypto
