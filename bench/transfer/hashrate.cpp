// Single-core part-fingerprint rate: MD5 + SHA-1 (Qel::Crypto::YBbsHash, i.e.
// OpenSSL's EVP digests) over 1 MiB buffers, as an upload hashes its parts.
// Prints the rate in bytes per second on one line.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Qel/Crypto/YBbsHash.h"

int main(int argc, char** argv) {
  const size_t mib = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
  std::vector<unsigned char> part(1 << 20);
  unsigned int x = 12345;
  for (unsigned char& b : part) b = static_cast<unsigned char>((x = x * 1103515245u + 12345u) >> 24);
  Qel::Crypto::YBbsHash hash;
  size_t sink = 0;
  for (int i = 0; i < 16; ++i) {  // warm-up
    hash.Update(part.data(), part.size());
    sink += hash.Finalize().size();
  }
  const auto start = std::chrono::steady_clock::now();
  for (size_t i = 0; i < mib; ++i) {
    part[i % part.size()] ^= 1;  // every part different, like a real file
    hash.Update(part.data(), part.size());
    sink += hash.Finalize().size();
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%.0f\n", static_cast<double>(mib) * part.size() / seconds);
  return sink == 0;
}
