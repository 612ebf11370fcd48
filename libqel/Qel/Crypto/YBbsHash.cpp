#include "Qel/Crypto/YBbsHash.h"

#include <algorithm>

namespace Qel::Crypto {

namespace {
// Small enough to stay in a first- or second-level cache while both digests
// read it.
constexpr size_t kSlice = 32 * 1024;
}  // namespace

void YBbsHash::Update(const void* bytes, size_t count) {
  const unsigned char* p = static_cast<const unsigned char*>(bytes);
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

}  // namespace Qel::Crypto
