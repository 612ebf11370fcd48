#pragma once
// Makes the service's own TLS certificate: an EC P-256 key and a self-signed X.509 v3
// certificate valid for ten years for "localhost", 127.0.0.1 and ::1 (subjectAltName),
// usable by clients as their CA file. Thread-safe (no shared state).

#include <filesystem>

namespace zarnu::cloud {

class SelfSignedCert {
public:
    /// Writes certFile and keyFile (key mode 0600) unless both exist already. Throws
    /// std::runtime_error naming the file or OpenSSL step that failed.
    static void ensure(const std::filesystem::path& certFile, const std::filesystem::path& keyFile);
};

}  // namespace zarnu::cloud
