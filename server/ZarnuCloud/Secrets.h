#pragma once
// Secrets: password hashing (argon2id, libsodium's interactive limits), random tokens
// and their SHA-256 digests, constant-time comparison. Thread-safe once
// Secrets::initialize() has run (call it once at program start).

#include <string>
#include <string_view>

namespace zarnu::cloud {

class Secrets {
public:
    /// Initialises libsodium; throws on failure.
    static void initialize();

    /// argon2id hash string (self-describing, includes salt and limits).
    static std::string hashPassword(std::string_view password);
    /// Checks a password against a hash made by hashPassword.
    static bool verifyPassword(std::string_view hash, std::string_view password);
    /// Spends about the same time as verifyPassword, for unknown user names.
    static void burnPasswordCheck(std::string_view password);

    /// Lower-case hex of `bytes` random bytes.
    static std::string randomHex(std::size_t bytes);
    /// Raw 32-byte SHA-256 digest.
    static std::string sha256(std::string_view data);
    static bool constantTimeEqual(std::string_view a, std::string_view b);
};

}  // namespace zarnu::cloud
