// Md5Many: MD5 (RFC 1321) over lanes of vector registers.
//
// The 64 steps of the compression function are written once, in Rounds<V>,
// over a small struct V of lane operations: Scalar (one uint32_t), Lanes256
// (AVX2, 8 lanes) and Lanes512 (AVX-512F, 16 lanes). Lane l of every vector
// belongs to message l of a group; HashGroup<V> drives a group of messages
// through the lanes.
//
// The vector structs' functions carry GCC/Clang target attributes, so this
// file builds for baseline x86-64. Vectors only cross calls by reference (a
// vector passed by value from a function without the feature would change the
// calling convention), and the group entry points are `flatten`, so that all
// the lane operations are inlined into a function built for their target.
#include "Qel/Crypto/Md5Lanes.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Qel::Crypto {
namespace {

constexpr size_t kBlock = 64;

constexpr uint32_t kInit[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};

// Added in step i: floor(2^32 * |sin(i + 1)|).
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Rotation of step i (four per round, repeated).
constexpr int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// Message word read by step i.
constexpr int Word(int i) {
  const int j = i % 16;
  switch (i / 16) {
    case 0: return j;
    case 1: return (5 * j + 1) % 16;
    case 2: return (3 * j + 5) % 16;
    default: return (7 * j) % 16;
  }
}

// Step i of round r (r = i / 16) on words a, b, c, d is
//   a = b + ((a + Fr(b, c, d) + w + k) <<< s)
// with F0 = b ? c : d, F1 = d ? b : c, F2 = b ^ c ^ d, F3 = c ^ (b | ~d).
// b is the newest word, so the steps form one chain through b; whatever does
// not need b is summed first. F1 = (c & ~d) + (b & d), the two halves having
// no bit in common, so that only one AND and one add wait for b.
// Each V implements that step as
//   template <int r, int s> static void Step(Vec& a, const Vec& b, const Vec& c, const Vec& d,
//                                            const Vec& w, const Vec& k);

// QEL_MD5_WHOLE(x): x as one term, which the compiler may not split to regroup
// the sum it goes into; the steps add the term that waits for b to the sum of
// the others. (GCC would otherwise add F early, one more add waiting for b.)
#if defined(__has_builtin)
#if __has_builtin(__builtin_assoc_barrier)
#define QEL_MD5_WHOLE(x) __builtin_assoc_barrier(x)
#endif
#endif
#ifndef QEL_MD5_WHOLE
#define QEL_MD5_WHOLE(x) (x)
#endif

// Runs the 64 steps on s = {a, b, c, d}; the caller adds the result to its state.
// The four words rotate roles each step: step i's `a` is s[-i mod 4].
template <class V, int... i>
inline void RunSteps(typename V::Vec* s, const typename V::Vec* w, const typename V::Vec* k,
                     std::integer_sequence<int, i...>) {
  (V::template Step<i / 16, kShift[i / 16][i % 4]>(s[(64 - i) % 4], s[(65 - i) % 4], s[(66 - i) % 4],
                                                   s[(67 - i) % 4], w[Word(i)], k[i]),
   ...);
}

template <class V>
inline void Rounds(typename V::Vec* s, const typename V::Vec* w, const typename V::Vec* k) {
  RunSteps<V>(s, w, k, std::make_integer_sequence<int, 64>());
}

struct Scalar {
  using Vec = uint32_t;

  template <int r, int s>
  [[gnu::always_inline]] static void Step(Vec& a, const Vec& b, const Vec& c, const Vec& d, const Vec& w,
                                          const Vec& k) {
    const Vec sum = a + w + k;
    Vec t;
    if constexpr (r == 0) t = QEL_MD5_WHOLE(sum) + (d ^ (b & (c ^ d)));
    else if constexpr (r == 1) t = QEL_MD5_WHOLE(sum + (c & ~d)) + (b & d);
    else if constexpr (r == 2) t = QEL_MD5_WHOLE(sum) + (b ^ c ^ d);
    else t = QEL_MD5_WHOLE(sum) + (c ^ (b | ~d));
    a = b + std::rotl(t, s);
  }
};

uint32_t LoadLe(const unsigned char* p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

// Advances `state` over `blocks` 64-byte blocks at `p`.
void CompressBlocks(uint32_t* state, const unsigned char* p, size_t blocks) {
  for (; blocks > 0; --blocks, p += kBlock) {
    uint32_t w[16];
    for (int j = 0; j < 16; ++j) w[j] = LoadLe(p + 4 * j);
    uint32_t s[4] = {state[0], state[1], state[2], state[3]};
    Rounds<Scalar>(s, w, kSine);
    for (int j = 0; j < 4; ++j) state[j] += s[j];
  }
}

// Writes the padded end of a message of `size` bytes into `tail`: the bytes
// after its last whole block, 0x80, zeros and the bit length (little-endian)
// in the last 8 bytes. Returns the tail's length in blocks (1 or 2).
size_t BuildTail(const unsigned char* message, size_t size, unsigned char* tail) {
  const size_t rest = size % kBlock;
  const size_t blocks = rest < kBlock - 8 ? 1 : 2;
  if (rest > 0) std::memcpy(tail, message + (size - rest), rest);
  tail[rest] = 0x80;
  std::memset(tail + rest + 1, 0, blocks * kBlock - rest - 1);
  uint64_t bits = uint64_t{size} * 8;
  for (size_t j = blocks * kBlock - 8; j < blocks * kBlock; ++j, bits >>= 8) tail[j] = static_cast<unsigned char>(bits);
  return blocks;
}

void StoreDigest(const uint32_t* state, Md5Digest* out) {
  for (int j = 0; j < 16; ++j) out->bytes[j] = static_cast<unsigned char>(state[j / 4] >> (8 * (j % 4)));
}

void HashOne(const unsigned char* message, size_t size, Md5Digest* out) {
  uint32_t state[4] = {kInit[0], kInit[1], kInit[2], kInit[3]};
  CompressBlocks(state, message, size / kBlock);
  unsigned char tail[2 * kBlock];
  CompressBlocks(state, tail, BuildTail(message, size, tail));
  StoreDigest(state, out);
}

#if defined(__x86_64__)

struct Lanes256 {
  static constexpr size_t kLanes = 8;
  using Vec = __m256i;

  template <int r, int s>
  [[gnu::target("avx2")]] static void Step(Vec& a, const Vec& b, const Vec& c, const Vec& d, const Vec& w,
                                           const Vec& k) {
    const Vec sum = _mm256_add_epi32(a, _mm256_add_epi32(w, k));
    Vec rest = sum, last;  // t = rest + last, last waiting for b
    if constexpr (r == 0) last = _mm256_xor_si256(d, _mm256_and_si256(b, _mm256_xor_si256(c, d)));
    else if constexpr (r == 1) {
      rest = _mm256_add_epi32(sum, _mm256_andnot_si256(d, c));
      last = _mm256_and_si256(b, d);
    } else if constexpr (r == 2) last = _mm256_xor_si256(b, _mm256_xor_si256(c, d));
    else last = _mm256_xor_si256(c, _mm256_or_si256(b, _mm256_xor_si256(d, _mm256_set1_epi32(-1))));
    Vec t = _mm256_add_epi32(QEL_MD5_WHOLE(rest), last);
    t = _mm256_or_si256(_mm256_slli_epi32(t, s), _mm256_srli_epi32(t, 32 - s));
    a = _mm256_add_epi32(b, t);
  }

  // Words [8h, 8h + 8) of lane l's block at p[l] into w[8h + j], lane l.
  [[gnu::target("avx2")]] static void Transpose8(const unsigned char* const* p, int h, Vec* w) {
    Vec r[8], t[8];
#pragma GCC unroll 16
    for (int l = 0; l < 8; ++l) r[l] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p[l] + 32 * h));
#pragma GCC unroll 16
    for (int i = 0; i < 4; ++i) {
      t[2 * i] = _mm256_unpacklo_epi32(r[2 * i], r[2 * i + 1]);
      t[2 * i + 1] = _mm256_unpackhi_epi32(r[2 * i], r[2 * i + 1]);
    }
    // r[4i + k], 128-bit half q: word 4q + k of lanes 4i .. 4i + 3.
#pragma GCC unroll 16
    for (int i = 0; i < 2; ++i) {
      r[4 * i] = _mm256_unpacklo_epi64(t[4 * i], t[4 * i + 2]);
      r[4 * i + 1] = _mm256_unpackhi_epi64(t[4 * i], t[4 * i + 2]);
      r[4 * i + 2] = _mm256_unpacklo_epi64(t[4 * i + 1], t[4 * i + 3]);
      r[4 * i + 3] = _mm256_unpackhi_epi64(t[4 * i + 1], t[4 * i + 3]);
    }
#pragma GCC unroll 16
    for (int k = 0; k < 4; ++k) {
      w[8 * h + k] = _mm256_permute2x128_si256(r[k], r[4 + k], 0x20);
      w[8 * h + 4 + k] = _mm256_permute2x128_si256(r[k], r[4 + k], 0x31);
    }
  }

  // w[j], lane l = word j of the 64-byte block at p[l].
  [[gnu::target("avx2")]] static void Load(const unsigned char* const* p, Vec* w) {
    Transpose8(p, 0, w);
    Transpose8(p, 1, w);
  }

  [[gnu::target("avx2")]] static void Broadcast(Vec& v, uint32_t x) { v = _mm256_set1_epi32(static_cast<int>(x)); }

  [[gnu::target("avx2")]] static void Add(Vec& x, const Vec& y) { x = _mm256_add_epi32(x, y); }

  [[gnu::target("avx2")]] static void Store(uint32_t* out, const Vec& v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), v);
  }
};

struct Lanes512 {
  static constexpr size_t kLanes = 16;
  using Vec = __m512i;

  // vpternlogd truth tables of F0..F3 with the operands in the order (d, b, c):
  // the instruction overwrites its first operand, and d, unlike b, is not the
  // result of the step just before, so copying it is off the critical path.
  static constexpr int kMix[4] = {0xb8, 0xca, 0x96, 0x65};

  template <int r, int s>
  [[gnu::target("avx512f")]] static void Step(Vec& a, const Vec& b, const Vec& c, const Vec& d, const Vec& w,
                                              const Vec& k) {
    constexpr int mix = kMix[r];  // an immediate operand, also in unoptimized builds
    const Vec f = _mm512_ternarylogic_epi32(d, b, c, mix);
    const Vec sum = _mm512_add_epi32(a, _mm512_add_epi32(w, k));
    const Vec t = _mm512_add_epi32(QEL_MD5_WHOLE(sum), f);
    a = _mm512_add_epi32(b, _mm512_rol_epi32(t, s));
  }

  // w[j], lane l = word j of the 64-byte block at p[l]: a 16 x 16 transpose.
  [[gnu::target("avx512f")]] static void Load(const unsigned char* const* p, Vec* w) {
    Vec r[16], t[16];
#pragma GCC unroll 16
    for (int l = 0; l < 16; ++l) r[l] = _mm512_loadu_si512(p[l]);
#pragma GCC unroll 16
    for (int i = 0; i < 8; ++i) {
      t[2 * i] = _mm512_unpacklo_epi32(r[2 * i], r[2 * i + 1]);
      t[2 * i + 1] = _mm512_unpackhi_epi32(r[2 * i], r[2 * i + 1]);
    }
    // r[4i + k], 128-bit quarter q: word 4q + k of lanes 4i .. 4i + 3.
#pragma GCC unroll 16
    for (int i = 0; i < 4; ++i) {
      r[4 * i] = _mm512_unpacklo_epi64(t[4 * i], t[4 * i + 2]);
      r[4 * i + 1] = _mm512_unpackhi_epi64(t[4 * i], t[4 * i + 2]);
      r[4 * i + 2] = _mm512_unpacklo_epi64(t[4 * i + 1], t[4 * i + 3]);
      r[4 * i + 3] = _mm512_unpackhi_epi64(t[4 * i + 1], t[4 * i + 3]);
    }
    // A 4 x 4 transpose of quarters across r[k], r[4 + k], r[8 + k], r[12 + k].
#pragma GCC unroll 16
    for (int k = 0; k < 4; ++k) {
      const Vec lo01 = _mm512_shuffle_i32x4(r[k], r[4 + k], 0x44);
      const Vec hi01 = _mm512_shuffle_i32x4(r[k], r[4 + k], 0xee);
      const Vec lo23 = _mm512_shuffle_i32x4(r[8 + k], r[12 + k], 0x44);
      const Vec hi23 = _mm512_shuffle_i32x4(r[8 + k], r[12 + k], 0xee);
      w[k] = _mm512_shuffle_i32x4(lo01, lo23, 0x88);
      w[4 + k] = _mm512_shuffle_i32x4(lo01, lo23, 0xdd);
      w[8 + k] = _mm512_shuffle_i32x4(hi01, hi23, 0x88);
      w[12 + k] = _mm512_shuffle_i32x4(hi01, hi23, 0xdd);
    }
  }

  [[gnu::target("avx512f")]] static void Broadcast(Vec& v, uint32_t x) {
    v = _mm512_set1_epi32(static_cast<int>(x));
  }

  [[gnu::target("avx512f")]] static void Add(Vec& x, const Vec& y) { x = _mm512_add_epi32(x, y); }

  [[gnu::target("avx512f")]] static void Store(uint32_t* out, const Vec& v) { _mm512_storeu_si512(out, v); }
};

// Fed to lanes without a message, so that every lane always has a block to load.
alignas(64) constexpr unsigned char kIdleBlock[kBlock] = {};

// Hashes n messages side by side, n in [2, V::kLanes].
//
// Lane l reads its message's whole blocks in place, then the one or two
// blocks of its tail (built here, so no message is read past its end). Its
// blocks come from `next[l]` on, `left[l]` of them before its source changes;
// `tail_left[l]` tail blocks follow once the message's blocks are done (0 once
// the lane has moved to its tail). Between source changes every active lane
// takes the same number of blocks, so the inner loop has no per-lane tests.
// A lane's digest is taken from the state right after its last block; from
// then on (and from the start in lanes without a message) the lane is outside
// `active`: it loads kIdleBlock, and what it computes is never read. When one
// active lane is left, it is finished with the scalar steps rather than in a
// mostly idle vector.
template <class V>
void HashGroup(const unsigned char* const* messages, const size_t* sizes, size_t n, Md5Digest* out) {
  using Vec = typename V::Vec;
  constexpr size_t kLanes = V::kLanes;

  alignas(64) unsigned char tails[kLanes][2 * kBlock];
  const unsigned char* next[kLanes];
  size_t stride[kLanes];  // kBlock in an active lane, 0 elsewhere
  size_t left[kLanes];
  size_t tail_left[kLanes];
  unsigned active = 0;  // bit l: lane l still has blocks
  for (size_t l = 0; l < kLanes; ++l) {
    next[l] = kIdleBlock;
    stride[l] = 0;
    left[l] = tail_left[l] = 0;
    if (l >= n) continue;
    const size_t body = sizes[l] / kBlock;
    const size_t tail = BuildTail(messages[l], sizes[l], tails[l]);
    next[l] = body > 0 ? messages[l] : tails[l];
    left[l] = body > 0 ? body : tail;
    tail_left[l] = body > 0 ? tail : 0;
    stride[l] = kBlock;
    active |= 1u << l;
  }

  Vec state[4];
  for (int j = 0; j < 4; ++j) V::Broadcast(state[j], kInit[j]);
  Vec sine[64];  // kSine in every lane: a memory operand of the steps, not a broadcast per step
  for (int i = 0; i < 64; ++i) V::Broadcast(sine[i], kSine[i]);
  alignas(64) uint32_t words[4][kLanes];  // state, lane by lane, when lanes finish

  while (std::popcount(active) > 1) {
    size_t run = SIZE_MAX;
    for (size_t l = 0; l < kLanes; ++l)
      if (active >> l & 1) run = std::min(run, left[l]);

    for (size_t b = 0; b < run; ++b) {
      Vec w[16];
      V::Load(next, w);
      Vec s[4] = {state[0], state[1], state[2], state[3]};
      Rounds<V>(s, w, sine);
      for (int j = 0; j < 4; ++j) V::Add(state[j], s[j]);
#pragma GCC unroll 16
      for (size_t l = 0; l < kLanes; ++l) next[l] += stride[l];
    }

    bool stored = false;
    for (size_t l = 0; l < kLanes; ++l) {
      if (!(active >> l & 1) || (left[l] -= run) > 0) continue;
      if (tail_left[l] > 0) {
        next[l] = tails[l];
        left[l] = std::exchange(tail_left[l], 0);
        continue;
      }
      if (!stored) {
        for (int j = 0; j < 4; ++j) V::Store(words[j], state[j]);
        stored = true;
      }
      const uint32_t lane_state[4] = {words[0][l], words[1][l], words[2][l], words[3][l]};
      StoreDigest(lane_state, &out[l]);
      active &= ~(1u << l);
      next[l] = kIdleBlock;
      stride[l] = 0;
    }
  }

  if (active != 0) {
    const size_t l = static_cast<size_t>(std::countr_zero(active));
    for (int j = 0; j < 4; ++j) V::Store(words[j], state[j]);
    uint32_t lane_state[4] = {words[0][l], words[1][l], words[2][l], words[3][l]};
    CompressBlocks(lane_state, next[l], left[l]);
    CompressBlocks(lane_state, tails[l], tail_left[l]);
    StoreDigest(lane_state, &out[l]);
  }
}

[[gnu::target("avx2"), gnu::flatten]] void HashGroupAvx2(const unsigned char* const* messages,
                                                        const size_t* sizes, size_t n, Md5Digest* out) {
  HashGroup<Lanes256>(messages, sizes, n, out);
}

// GCC 12 reports the deliberately undefined pass-through operand inside many
// AVX-512 intrinsics as a possibly uninitialized read.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

[[gnu::target("avx512f"), gnu::flatten]] void HashGroupAvx512(const unsigned char* const* messages,
                                                             const size_t* sizes, size_t n, Md5Digest* out) {
  HashGroup<Lanes512>(messages, sizes, n, out);
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#endif  // __x86_64__

// The engine Md5Many runs for `engine`.
Md5Engine Resolve(Md5Engine engine) {
  if (engine != Md5Engine::kBest && Md5EngineAvailable(engine)) return engine;
  if (Md5EngineAvailable(Md5Engine::kAvx512)) return Md5Engine::kAvx512;
  if (Md5EngineAvailable(Md5Engine::kAvx2)) return Md5Engine::kAvx2;
  return Md5Engine::kScalar;
}

}  // namespace

bool Md5EngineAvailable(Md5Engine engine) {
  switch (engine) {
    case Md5Engine::kBest:
    case Md5Engine::kScalar: return true;
#if defined(__x86_64__)
    // __builtin_cpu_supports also checks that the OS saves the wider registers.
    case Md5Engine::kAvx2: __builtin_cpu_init(); return __builtin_cpu_supports("avx2");
    case Md5Engine::kAvx512: __builtin_cpu_init(); return __builtin_cpu_supports("avx512f");
#else
    case Md5Engine::kAvx2:
    case Md5Engine::kAvx512: return false;
#endif
  }
  return false;
}

size_t Md5LaneWidth(Md5Engine engine) {
  switch (Resolve(engine)) {
    case Md5Engine::kAvx512: return 16;
    case Md5Engine::kAvx2: return 8;
    default: return 1;
  }
}

void Md5Many(const unsigned char* const* messages, const size_t* sizes, size_t count, Md5Digest* out,
             Md5Engine engine) {
  const Md5Engine run = Resolve(engine);
  const size_t width = Md5LaneWidth(run);
#if defined(__x86_64__)
  // A block through 8 lanes of 256 bits takes about 3/4 of the time of one
  // through 16 lanes of 512 bits (measured on AMD Zen 4, which runs 512-bit
  // operations through 256-bit units), so kBest hashes groups of 8 messages
  // or fewer with AVX2.
  const bool short_groups_avx2 =
      run == Md5Engine::kAvx512 && engine != run && Md5EngineAvailable(Md5Engine::kAvx2);
#endif
  for (size_t i = 0; i < count; i += width) {
    const size_t n = std::min(width, count - i);
    if (n == 1) {
      HashOne(messages[i], sizes[i], &out[i]);
      continue;
    }
#if defined(__x86_64__)
    if (run == Md5Engine::kAvx512 && !(short_groups_avx2 && n <= 8))
      HashGroupAvx512(messages + i, sizes + i, n, out + i);
    else
      HashGroupAvx2(messages + i, sizes + i, n, out + i);
#endif
  }
}

std::string Md5Hex(const Md5Digest& digest) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex(2 * sizeof digest.bytes, '0');
  for (size_t j = 0; j < sizeof digest.bytes; ++j) {
    hex[2 * j] = kHex[digest.bytes[j] >> 4];
    hex[2 * j + 1] = kHex[digest.bytes[j] & 15];
  }
  return hex;
}

}  // namespace Qel::Crypto
