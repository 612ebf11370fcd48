#pragma once
// Reclaims the space of parts nobody holds. A part is held by an account from its
// upload on; the hold lapses when the account has not used the part in any file (live,
// deleted or an earlier version) for kUnusedHoldSeconds. A part file no account holds,
// that is not pinned by an upload in flight and was last written kFileGraceSeconds ago
// or earlier, is removed. The file grace also covers an upload of another process
// using the same folders (e.g. a second service instance), which pins cannot see.
//
// Holds references to the stores and the pins; they must outlive it. collect() may run
// beside uploads and downloads; run one collect() at a time.

#include "MetadataStore.h"
#include "PartPins.h"
#include "PartStore.h"

#include <cstdint>

namespace zarnu::cloud {

class PartCollector {
public:
    static constexpr std::int64_t kUnusedHoldSeconds = 7 * 24 * 3600;
    static constexpr std::int64_t kFileGraceSeconds = 3600;
    /// How often the service collects while it runs.
    static constexpr std::int64_t kIntervalSeconds = 3600;

    struct Result {
        std::uint64_t holdsReleased = 0;
        std::uint64_t partsRemoved = 0;
    };

    PartCollector(MetadataStore& meta, PartStore& parts, PartPins& pins) : meta_(meta), parts_(parts), pins_(pins) {}

    /// One pass at time `now` (Unix seconds).
    Result collect(std::int64_t now);

private:
    MetadataStore& meta_;
    PartStore& parts_;
    PartPins& pins_;
};

}  // namespace zarnu::cloud
