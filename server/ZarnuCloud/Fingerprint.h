#pragma once
// Part fingerprints: lower-case hex MD5 (32 characters) immediately followed by the
// lower-case hex SHA-1 (40 characters) of the part's bytes, 72 characters in all.
// Stateless and thread-safe (OpenSSL EVP one-shot digests).

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zarnu::cloud {

class Fingerprint {
public:
    static constexpr std::size_t kLength = 72;
    static constexpr std::size_t kMaxPartSize = 1024 * 1024;

    /// 72 characters of lower-case hex.
    static bool isWellFormed(std::string_view fingerprint);
    /// Fingerprint of the given bytes.
    static std::string of(std::string_view bytes);
    /// Fingerprints of several byte ranges at once: their MD5s run side by side in
    /// vector lanes, so a batch of parts costs about what its SHA-1s cost.
    static std::vector<std::string> ofMany(const std::vector<std::string_view>& parts);
    /// Whether bytes hash to fingerprint (false for a malformed fingerprint).
    static bool matches(std::string_view fingerprint, std::string_view bytes);
};

}  // namespace zarnu::cloud
