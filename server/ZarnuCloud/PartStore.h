#pragma once
// Where part bytes live, addressed by fingerprint. Implementations must be safe to call
// from many threads at once. The store never checks fingerprints on the way in: callers
// hand it bytes they have already verified. On the way out it checks that the bytes are
// still the ones it was given.

#include "FileSlice.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zarnu::cloud {

class PartStore {
public:
    struct NewPart {
        std::string_view fingerprint;
        std::string_view bytes;
    };

    virtual ~PartStore() = default;

    /// A part file as the store holds it.
    struct StoredPart {
        std::string fingerprint;
        std::int64_t written = 0;  ///< when its bytes were last written, Unix seconds
    };

    /// Stores the bytes under fingerprint. When it returns, the part is durable (a crash
    /// afterwards cannot lose or tear it). Returns true when the part was newly written,
    /// false when it was already present. Throws ApiError StorageFull when the disk is
    /// full, std::runtime_error on other I/O failures; nothing is half-stored either way.
    virtual bool put(std::string_view fingerprint, std::string_view bytes) = 0;

    /// put() for several parts at once: when it returns, every one of them is durable.
    /// Element i tells whether parts[i] was newly written. On failure (an exception)
    /// some parts may be stored, none half-stored.
    virtual std::vector<bool> putMany(const std::vector<NewPart>& parts) {
        std::vector<bool> written;
        for (const NewPart& p : parts) written.push_back(put(p.fingerprint, p.bytes));
        return written;
    }

    virtual bool contains(std::string_view fingerprint) = 0;

    /// The part's bytes, or nothing when the store lacks it or its bytes are damaged.
    virtual std::optional<std::string> get(std::string_view fingerprint) = 0;

    /// The part opened for sending (its bytes, unread, in the page cache where the store
    /// can arrange it), or nothing when the store lacks it or its bytes are damaged.
    /// Throws std::runtime_error on I/O failure.
    virtual std::optional<FileSlice> open(std::string_view fingerprint) = 0;

    /// Calls visit for every part the store holds (in no particular order). Parts stored
    /// or removed meanwhile may or may not be visited.
    virtual void forEach(const std::function<void(const StoredPart&)>& visit) = 0;
    /// Removes the part unless its bytes were written at or after `writtenBefore` (Unix
    /// seconds); returns whether it removed it. The caller makes sure no one holds it.
    virtual bool remove(std::string_view fingerprint, std::int64_t writtenBefore) = 0;
    /// How many damaged parts reads have moved aside since the store was opened.
    virtual std::uint64_t quarantined() const = 0;
};

}  // namespace zarnu::cloud
