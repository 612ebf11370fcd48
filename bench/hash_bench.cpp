// Part fingerprints: MD5 of 1 MiB parts through OpenSSL one at a time against
// Md5Many with 1 to 16 parts side by side on each engine this CPU runs, and
// OpenSSL's SHA-1 for scale. Bytes per second count every part hashed.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <string>
#include <vector>

#include "Qel/Crypto/Md5Lanes.h"

namespace {

using Qel::Crypto::Md5Digest;
using Qel::Crypto::Md5Engine;

constexpr size_t kPart = 1 << 20;

// 16 parts of distinct bytes.
const std::vector<unsigned char>& Parts() {
  static const std::vector<unsigned char> bytes = [] {
    std::vector<unsigned char> b(16 * kPart);
    for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<unsigned char>((i * 2654435761u) >> 13);
    return b;
  }();
  return bytes;
}

void OpenSsl(benchmark::State& state, const EVP_MD* md) {
  const unsigned char* part = Parts().data();
  unsigned char out[EVP_MAX_MD_SIZE];
  for (auto _ : state) {
    EVP_Digest(part, kPart, out, nullptr, md, nullptr);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kPart));
}

void BM_OpenSslMd5(benchmark::State& state) { OpenSsl(state, EVP_md5()); }
BENCHMARK(BM_OpenSslMd5);

void BM_OpenSslSha1(benchmark::State& state) { OpenSsl(state, EVP_sha1()); }
BENCHMARK(BM_OpenSslSha1);

void Md5Many(benchmark::State& state, Md5Engine engine, size_t count) {
  std::vector<const unsigned char*> parts;
  for (size_t i = 0; i < count; ++i) parts.push_back(Parts().data() + i * kPart);
  const std::vector<size_t> sizes(count, kPart);
  std::vector<Md5Digest> out(count);
  for (auto _ : state) {
    Qel::Crypto::Md5Many(parts.data(), sizes.data(), count, out.data(), engine);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * count * kPart));
}

// BM_Md5Many/<engine>/<parts>, for the engines this CPU runs.
const bool kRegistered = [] {
  const std::pair<Md5Engine, const char*> engines[] = {
      {Md5Engine::kScalar, "Scalar"}, {Md5Engine::kAvx2, "Avx2"}, {Md5Engine::kAvx512, "Avx512"},
      {Md5Engine::kBest, "Best"}};
  for (const auto& [engine, name] : engines) {
    if (!Qel::Crypto::Md5EngineAvailable(engine)) continue;
    for (size_t count : {1, 2, 4, 5, 8, 16})
      benchmark::RegisterBenchmark(("BM_Md5Many/" + std::string(name) + "/" + std::to_string(count)).c_str(),
                                   Md5Many, engine, count);
  }
  return true;
}();

}  // namespace
