#pragma once
// CRC-32C (Castagnoli) of a byte range: the check sum the part store keeps beside each
// part, so that a read can tell the bytes on disk are still those that were verified
// against their fingerprint, at a small fraction of the cost of hashing them again.
// Uses the CPU's CRC32 instruction where there is one. Stateless and thread-safe.

#include <cstddef>
#include <cstdint>

namespace zarnu::cloud {

/// CRC-32C of `size` bytes at `data`, continuing from `crc` (0 to start).
std::uint32_t crc32c(const void* data, std::size_t size, std::uint32_t crc = 0);

}  // namespace zarnu::cloud
