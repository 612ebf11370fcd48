#pragma once
// Part fingerprints: lower-case hex MD5 (32 characters) immediately followed by the
// lower-case hex SHA-1 (40 characters) of the part's bytes, 72 characters in all.
// Stateless and thread-safe (OpenSSL EVP one-shot digests).

#include <cstdint>
#include <string>
#include <string_view>

namespace zarnu::cloud {

class Fingerprint {
public:
    static constexpr std::size_t kLength = 72;
    static constexpr std::size_t kMaxPartSize = 1024 * 1024;

    /// 72 characters of lower-case hex.
    static bool isWellFormed(std::string_view fingerprint);
    /// Fingerprint of the given bytes.
    static std::string of(std::string_view bytes);
    /// Whether bytes hash to fingerprint (false for a malformed fingerprint).
    static bool matches(std::string_view fingerprint, std::string_view bytes);
};

}  // namespace zarnu::cloud
