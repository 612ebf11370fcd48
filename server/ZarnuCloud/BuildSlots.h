#pragma once
// The build-slot document: {"platforms": {"<platform>": {"<slot>": {"download_token": "...",
// "version": "..."}}}}. Each account with the build role has a document of its own, which
// no other account can read or change. Merging is pure; storage goes through
// MetadataStore settings.

#include <cstdint>
#include <string>
#include <string_view>

namespace zarnu::cloud {

class MetadataStore;

class BuildSlots {
public:
    /// Merges `update` (JSON text) into `current` (JSON text, empty = no slots yet) and
    /// returns the merged document. Each slot in the update replaces that slot; other
    /// slots stay. Throws std::invalid_argument describing what is malformed.
    static std::string merge(std::string_view current, std::string_view update);

    /// The account's current slots, {"platforms": {}} when it stored none.
    static std::string load(MetadataStore& store, std::int64_t account);
    /// Merges into the account's slots and stores them in one transaction; throws
    /// std::invalid_argument when malformed.
    static void store(MetadataStore& store, std::int64_t account, std::string_view update);
};

}  // namespace zarnu::cloud
