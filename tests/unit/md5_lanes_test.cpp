// Md5Many against OpenSSL's MD5, for every engine this CPU can run.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Qel/Crypto/Md5Lanes.h"

namespace {

using Qel::Crypto::Md5Digest;
using Qel::Crypto::Md5Engine;
using Qel::Crypto::Md5Many;

std::string OpenSslHex(const unsigned char* bytes, size_t size) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EXPECT_EQ(EVP_Digest(bytes, size, md, &length, EVP_md5(), nullptr), 1);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    char byte[3];
    std::snprintf(byte, sizeof byte, "%02x", md[i]);
    hex += byte;
  }
  return hex;
}

// Noise that differs at every offset, so that lanes mixed up give other digests.
std::vector<unsigned char> Noise(size_t size) {
  std::vector<unsigned char> bytes(size);
  uint32_t x = 2463534242u;
  for (auto& b : bytes) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    b = static_cast<unsigned char>(x);
  }
  return bytes;
}

class Md5ManyTest : public testing::TestWithParam<Md5Engine> {
 protected:
  void SetUp() override {
    if (!Qel::Crypto::Md5EngineAvailable(GetParam()))
      GTEST_SKIP() << "engine not available: this CPU (or a non-x86-64 build) lacks "
                   << (GetParam() == Md5Engine::kAvx2 ? "AVX2" : "AVX-512F");
  }

  // Hashes the messages in one call and compares each digest with OpenSSL's.
  void Check(const std::vector<const unsigned char*>& messages, const std::vector<size_t>& sizes) {
    std::vector<Md5Digest> out(messages.size());
    Md5Many(messages.data(), sizes.data(), messages.size(), out.data(), GetParam());
    for (size_t i = 0; i < messages.size(); ++i)
      ASSERT_EQ(Qel::Crypto::Md5Hex(out[i]), OpenSslHex(messages[i], sizes[i]))
          << "message " << i << " of " << messages.size() << ", " << sizes[i] << " bytes";
  }
};

TEST_P(Md5ManyTest, EveryShortLengthInEveryLaneOfEveryGroupSize) {
  // Groups of 1 to 17 messages (wider than a vector, ragged ends); across the
  // groups of one size each lane sees every length 0..200.
  const std::vector<unsigned char> bytes = Noise(64 * 1024);
  for (size_t count = 1; count <= 17; ++count) {
    for (size_t g = 0; g <= 200; ++g) {
      std::vector<const unsigned char*> messages;
      std::vector<size_t> sizes;
      for (size_t i = 0; i < count; ++i) {
        messages.push_back(bytes.data() + 250 * i + g);
        sizes.push_back((g + 53 * i) % 201);
      }
      ASSERT_NO_FATAL_FAILURE(Check(messages, sizes)) << count << " messages, group " << g;
    }
  }
}

TEST_P(Md5ManyTest, FileParts) {
  // The parts of files: whole MiB with a shorter last part, then a mix of
  // sizes around block boundaries beside whole parts.
  constexpr size_t kMiB = 1 << 20;
  const std::vector<unsigned char> bytes = Noise(3 * kMiB);
  std::vector<const unsigned char*> messages;
  for (size_t i = 0; i < 17; ++i) messages.push_back(bytes.data() + 100'000 * i + 3 * i);
  Check({messages.begin(), messages.begin() + 5}, {kMiB, kMiB, kMiB, kMiB, kMiB - 5});
  Check({messages.begin(), messages.begin() + 2}, {kMiB - 64, kMiB});
  Check(messages, {kMiB, 0, 55, kMiB - 1, 56, 64, 65, kMiB - 7, 119, 120, 1, 4096, 65537, kMiB - 63, 128, 63,
                   kMiB});
}

TEST_P(Md5ManyTest, UnalignedRepeatedAndEndingAtAGuardPage) {
  // Messages end right before a page that may not be read, so reading a byte
  // past any of them faults; they start at every alignment, and one pointer
  // is passed twice (also with two sizes).
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* map = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(map, MAP_FAILED);
  auto* end = static_cast<unsigned char*>(map) + page;
  const std::vector<unsigned char> noise = Noise(page);
  std::copy(noise.begin(), noise.end(), end - page);
  ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
  for (size_t length = 0; length <= 130; ++length) {
    std::vector<const unsigned char*> messages;
    std::vector<size_t> sizes;
    for (size_t i = 0; i < 9; ++i) {
      const size_t size = length + 7 * i;
      messages.push_back(end - size);
      sizes.push_back(size);
    }
    messages.push_back(messages[3]);
    sizes.push_back(sizes[3]);
    messages.push_back(messages[3]);
    sizes.push_back(sizes[3] / 2);
    ASSERT_NO_FATAL_FAILURE(Check(messages, sizes)) << "shortest " << length;
  }
  munmap(map, 2 * page);
}

TEST_P(Md5ManyTest, ZeroCountAndNullEmptyMessages) {
  Md5Digest out[3], untouched[3];
  std::memset(out, 0x5a, sizeof out);
  std::memcpy(untouched, out, sizeof out);
  Md5Many(nullptr, nullptr, 0, nullptr, GetParam());
  Md5Many(nullptr, nullptr, 0, out, GetParam());
  EXPECT_EQ(std::memcmp(out, untouched, sizeof out), 0);
  const unsigned char* messages[2] = {nullptr, nullptr};
  const size_t sizes[2] = {0, 0};
  Md5Many(messages, sizes, 2, out, GetParam());
  const std::string empty = OpenSslHex(reinterpret_cast<const unsigned char*>(""), 0);
  EXPECT_EQ(Qel::Crypto::Md5Hex(out[0]), empty);
  EXPECT_EQ(Qel::Crypto::Md5Hex(out[1]), empty);
  EXPECT_EQ(std::memcmp(&out[2], &untouched[2], sizeof out[2]), 0);
}

std::string EngineName(const testing::TestParamInfo<Md5Engine>& info) {
  static const char* const kNames[] = {"Best", "Scalar", "Avx2", "Avx512"};
  return kNames[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Md5Engines, Md5ManyTest,
                         testing::Values(Md5Engine::kBest, Md5Engine::kScalar, Md5Engine::kAvx2, Md5Engine::kAvx512),
                         EngineName);

}  // namespace
