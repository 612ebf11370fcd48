#pragma once
// The build-slot document: {"platforms": {"<platform>": {"<slot>": {"download_token": "...",
// "version": "..."}}}}. Merging is pure; storage goes through MetadataStore settings.

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

    /// Current slots, {"platforms": {}} when none were stored.
    static std::string load(MetadataStore& store);
    /// Merges and stores in one transaction; throws std::invalid_argument when malformed.
    static void store(MetadataStore& store, std::string_view update);
};

}  // namespace zarnu::cloud
