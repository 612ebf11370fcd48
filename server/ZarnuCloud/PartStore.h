#pragma once
// Where part bytes live, addressed by fingerprint. Implementations must be safe to call
// from many threads at once. The store never checks fingerprints itself: callers hand
// it bytes they have already verified.

#include <optional>
#include <string>
#include <string_view>

namespace zarnu::cloud {

class PartStore {
public:
    virtual ~PartStore() = default;

    /// Stores the bytes under fingerprint. When it returns, the part is durable (a crash
    /// afterwards cannot lose or tear it). Returns true when the part was newly written,
    /// false when it was already present. Throws std::runtime_error on I/O failure.
    virtual bool put(std::string_view fingerprint, std::string_view bytes) = 0;

    virtual bool contains(std::string_view fingerprint) = 0;

    /// The part's bytes, or nothing when the store lacks it.
    virtual std::optional<std::string> get(std::string_view fingerprint) = 0;
};

}  // namespace zarnu::cloud
