#include "PartCollector.h"

#include <string>
#include <vector>

namespace zarnu::cloud {

PartCollector::Result PartCollector::collect(std::int64_t now) {
    Result result;
    result.holdsReleased = meta_.releaseUnusedParts(now - kUnusedHoldSeconds);
    std::vector<std::string> candidates;
    parts_.forEach([&](const PartStore::StoredPart& p) {
        if (p.written < now - kFileGraceSeconds) candidates.push_back(p.fingerprint);
    });
    // A candidate is checked and removed with new pins held off: an upload that pins it
    // afterwards writes the part again before it records its hold, and one that recorded
    // its hold before the check shows in the count.
    for (const std::string& fp : candidates) {
        pins_.ifUnpinned(fp, [&] {
            if (meta_.partHolders(fp) == 0 && parts_.remove(fp, now - kFileGraceSeconds)) result.partsRemoved++;
        });
    }
    return result;
}

}  // namespace zarnu::cloud
