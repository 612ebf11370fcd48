#include "Qel/Crypto/YMd5.h"

#include "Qel/Crypto/Md5Lanes.h"

namespace Qel::Crypto {

YMd5::YMd5() : YDigest("MD5") {}

std::vector<YString> YMd5::DigestMany(const unsigned char* const* buffers, const size_t* sizes, size_t count) {
  std::vector<Md5Digest> digests(count);
  Md5Many(buffers, sizes, count, digests.data());
  std::vector<YString> out;
  out.reserve(count);
  for (const Md5Digest& d : digests) out.emplace_back(Md5Hex(d));
  return out;
}

}  // namespace Qel::Crypto
