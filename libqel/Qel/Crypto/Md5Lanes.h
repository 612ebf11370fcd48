// Qel::Crypto::Md5Many: MD5 of many independent messages at once, side by
// side in the lanes of the CPU's vector registers (16 with AVX-512F, 8 with
// AVX2), so that N parts of a file take about the time of one.
//
// Plain C++20 with no dependency on the rest of libQel (the cloud service
// links it on its own). The engine is picked at run time from what the CPU
// offers; every engine gives the same digests.
//
// Ownership: the caller owns every buffer; nothing is kept after a call
// returns and nothing is allocated on the heap.
// Thread-safety: every function may be called from any number of threads at
// once.
#pragma once

#include <cstddef>
#include <string>

namespace Qel::Crypto {

struct Md5Digest {
  unsigned char bytes[16];
};

enum class Md5Engine {
  kBest,    // the widest engine this CPU can run, except that groups of 8
            // messages or fewer go through AVX2 (faster than half-idle AVX-512)
  kScalar,  // one message at a time, plain C++
  kAvx2,    // 8 messages side by side
  kAvx512,  // 16 messages side by side (AVX-512F)
};

// Whether this CPU (and this build) can run `engine`. kBest and kScalar
// always can; the vector engines exist only in x86-64 builds.
bool Md5EngineAvailable(Md5Engine engine);

// How many messages Md5Many hashes side by side with `engine`, at most: 1, 8
// or 16.
// kBest, or an engine this CPU cannot run, resolves to the widest available.
size_t Md5LaneWidth(Md5Engine engine = Md5Engine::kBest);

// Sets out[i] to the MD5 of the sizes[i] bytes at messages[i], for every
// i < count. Messages may have any lengths, any alignment, and may repeat.
// An engine this CPU cannot run is replaced by kBest.
//
// Speed: messages are hashed in groups of Md5LaneWidth(engine) and a group
// takes about the time of its longest message, so pass messages of similar
// lengths together (the parts of a file are).
//
// REQUIRES: messages, sizes and out each point to count elements (any of them
//           may be null when count == 0).
// REQUIRES: messages[i] may be null only when sizes[i] == 0.
// REQUIRES: out[0..count) does not overlap any message.
void Md5Many(const unsigned char* const* messages, const size_t* sizes, size_t count, Md5Digest* out,
             Md5Engine engine = Md5Engine::kBest);

// The 32 lower-case hex characters of `digest`.
std::string Md5Hex(const Md5Digest& digest);

}  // namespace Qel::Crypto
