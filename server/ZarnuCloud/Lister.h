#pragma once
// The listing operation: plain paths (the named folder heads every page), wild-card
// paths, regular-expression name filters, recursion, deleted entries and paging with an
// opaque cursor. Reads through a MetadataStore; holds no state of its own, so one
// Lister may serve many threads at once.

#include "MetadataStore.h"

#include <string>
#include <vector>

namespace zarnu::cloud {

struct ListRequest {
    std::string path;
    std::string filter;  ///< regular expression that must match whole names; empty = none
    bool recurse = false;
    std::size_t partLimit = 0;  ///< 0 = all parts
    std::size_t pageSize = 1000;
    bool includeParts = false;
    bool includeDeleted = false;
    std::string cursor;
};

struct ListedEntry {
    Entry entry;
    std::vector<PartLocation> parts;  ///< filled only when parts were asked for (files)
};

struct ListPage {
    std::vector<ListedEntry> entries;
    bool more = false;
    std::string cursor;  ///< empty when !more
};

class Lister {
public:
    static constexpr std::size_t kMaxPageSize = 10000;
    static constexpr std::size_t kMaxFilterBytes = 1024;

    explicit Lister(MetadataStore& store) : store_(store) {}

    /// Throws ApiError 55 for a bad path, filter, cursor or page size.
    ListPage list(AccountId account, const ListRequest& request) const;

    static std::string encodeCursor(std::string_view key);
    /// Throws ApiError 55 when the cursor was not made by encodeCursor.
    static std::string decodeCursor(std::string_view cursor);

private:
    MetadataStore& store_;
};

}  // namespace zarnu::cloud
