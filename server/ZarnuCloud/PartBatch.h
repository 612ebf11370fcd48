#pragma once
// The binary bodies of part upload and part download: one line of JSON (the manifest)
// ending in a single LF byte, then the parts' bytes concatenated in manifest order.
// Pure functions; thread-safe.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zarnu::cloud {

struct UploadedPart {
    std::string fingerprint;
    std::string_view bytes;  ///< points into the request body
};

class PartBatch {
public:
    static constexpr std::size_t kMaxUploadParts = 5;
    static constexpr std::size_t kMaxManifestBytes = 64 * 1024;
    static constexpr std::size_t kMaxUploadBody = kMaxUploadParts * 1024 * 1024 + kMaxManifestBytes;

    /// Splits an upload body into its parts. Throws ApiError 55 for a malformed manifest
    /// or sizes that do not add up, 175 for more than five parts. Does not hash.
    static std::vector<UploadedPart> parseUpload(std::string_view body);

    /// Builds an upload body (used by tests and tools).
    static std::string makeUpload(const std::vector<std::string_view>& parts);
};

}  // namespace zarnu::cloud
