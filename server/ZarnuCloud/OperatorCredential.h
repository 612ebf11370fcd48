#pragma once
// The operator credential: one bearer token, kept in a file of the data folder
// ("operator.token", 64 lower-case hex characters, mode 0600), that unlocks what no
// account may see (the service-wide statistics). Only its SHA-256 digest is held in
// memory. Immutable once loaded, so thread-safe.

#include <filesystem>
#include <string>
#include <string_view>

namespace zarnu::cloud {

class OperatorCredential {
public:
    static constexpr const char* kFileName = "operator.token";

    /// Reads the token from `file`; when the file does not exist, makes it (mode 0600)
    /// with a fresh random token first. Throws std::runtime_error naming the file when it
    /// cannot be read or made, or does not hold a well-formed token.
    static OperatorCredential loadOrCreate(const std::filesystem::path& file);

    /// Whether `token` is the operator token (constant time in the token's bytes).
    bool matches(std::string_view token) const;

private:
    explicit OperatorCredential(std::string digest) : digest_(std::move(digest)) {}
    std::string digest_;
};

}  // namespace zarnu::cloud
