#include "Checksum.h"

#include <array>
#include <cstring>

#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

namespace zarnu::cloud {

namespace {

constexpr std::uint32_t kPolynomial = 0x82F63B78;  // CRC-32C, reflected

std::array<std::uint32_t, 256> makeTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ kPolynomial : c >> 1;
        table[i] = c;
    }
    return table;
}

std::uint32_t crcPortable(const unsigned char* p, std::size_t n, std::uint32_t crc) {
    static const std::array<std::uint32_t, 256> table = makeTable();
    for (std::size_t i = 0; i < n; ++i) crc = table[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
    return crc;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) std::uint32_t crcHardware(const unsigned char* p, std::size_t n,
                                                             std::uint32_t crc) {
    std::uint64_t c = crc;
    // One stream, 8 bytes per instruction: about 0.1 s per GiB, far below the cost of
    // the disk and the network behind it.
    while (n >= 8) {
        std::uint64_t word;
        std::memcpy(&word, p, 8);
        c = _mm_crc32_u64(c, word);
        p += 8;
        n -= 8;
    }
    std::uint32_t c32 = static_cast<std::uint32_t>(c);
    while (n-- > 0) c32 = _mm_crc32_u8(c32, *p++);
    return c32;
}
#endif

}  // namespace

std::uint32_t crc32c(const void* data, std::size_t size, std::uint32_t crc) {
    const auto* p = static_cast<const unsigned char*>(data);
    crc = ~crc;
#if defined(__x86_64__)
    static const bool hardware = __builtin_cpu_supports("sse4.2");
    if (hardware) return ~crcHardware(p, size, crc);
#endif
    return ~crcPortable(p, size, crc);
}

}  // namespace zarnu::cloud
