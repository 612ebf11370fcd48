#pragma once
// PartStore on a local folder: <root>/<first two hex>/<fingerprint>. A part is written
// to <root>/tmp/<random>, fsync'd, renamed into place and its folder fsync'd, so a part
// file either is absent or holds the complete bytes. Leftover temporaries from a crash
// are removed when the store is opened. Thread-safe.

#include "PartStore.h"

#include <filesystem>

namespace zarnu::cloud {

class FolderPartStore final : public PartStore {
public:
    /// Creates the folder when needed; throws std::runtime_error when it cannot.
    explicit FolderPartStore(std::filesystem::path root);

    bool put(std::string_view fingerprint, std::string_view bytes) override;
    bool contains(std::string_view fingerprint) override;
    std::optional<std::string> get(std::string_view fingerprint) override;

    std::filesystem::path pathOf(std::string_view fingerprint) const;

private:
    std::filesystem::path root_;
};

}  // namespace zarnu::cloud
