#pragma once
// PartStore on a local folder: <root>/<first two hex>/<fingerprint>. A part is written
// to <root>/tmp/<random>, fsync'd, renamed into place and its folder fsync'd, so a part
// file either is absent or holds the complete bytes. Leftover temporaries from a crash
// are removed when the store is opened. Thread-safe.
//
// Each part file carries the CRC-32C of its bytes in the extended attribute
// "user.zarnu.crc32c" (4 bytes, little-endian). Reads check it, and hash the bytes
// against their fingerprint only when it is missing (parts stored before it existed, or
// a file system without extended attributes) or does not match; a part whose bytes no
// longer match its fingerprint reads as absent.

#include "PartStore.h"

#include <filesystem>

namespace zarnu::cloud {

class FolderPartStore final : public PartStore {
public:
    /// Creates the folder when needed; throws std::runtime_error when it cannot.
    explicit FolderPartStore(std::filesystem::path root);

    bool put(std::string_view fingerprint, std::string_view bytes) override;
    /// Writes every new part before it syncs any, so the disk work of a batch is
    /// waited for about once rather than once per part.
    std::vector<bool> putMany(const std::vector<NewPart>& parts) override;
    bool contains(std::string_view fingerprint) override;
    std::optional<std::string> get(std::string_view fingerprint) override;
    std::optional<FileSlice> open(std::string_view fingerprint) override;

    std::filesystem::path pathOf(std::string_view fingerprint) const;

private:
    /// The part's file, open, and its size; nothing when it is absent or empty.
    std::optional<FileSlice> openFile(std::string_view fingerprint) const;

    std::filesystem::path root_;
};

}  // namespace zarnu::cloud
