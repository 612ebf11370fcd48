#pragma once
// PartStore on a local folder: <root>/<first two hex>/<fingerprint>. A part is written
// to <root>/tmp/<random>, fsync'd, renamed into place and its folder fsync'd, so a part
// file either is absent or holds the complete bytes. Leftover temporaries from a crash
// are removed when the store is opened. Thread-safe.
//
// Every put writes and syncs the part, whether or not the store already holds it: the
// work, and so the time an upload takes, does not tell whether anyone stored these bytes
// before, and a part that was damaged or quarantined is replaced by good bytes.
//
// Each part file carries the CRC-32C of its bytes in the extended attribute
// "user.zarnu.crc32c" (4 bytes, little-endian). Reads check it, and hash the bytes
// against their fingerprint only when it is missing (parts stored before it existed, or
// a file system without extended attributes) or does not match; a part whose bytes no
// longer match its fingerprint is moved to <root>/quarantine/ and reads as absent.
//
// All changes to files go through an Env (Env::posix() unless a test gives another).

#include "Env.h"
#include "PartBuffers.h"
#include "PartStore.h"

#include <array>
#include <atomic>
#include <filesystem>
#include <mutex>

namespace zarnu::cloud {

class FolderPartStore final : public PartStore {
public:
    /// Creates the folder when needed; throws std::runtime_error when it cannot. `env`
    /// must outlive the store.
    explicit FolderPartStore(std::filesystem::path root, Env& env = Env::posix());

    bool put(std::string_view fingerprint, std::string_view bytes) override;
    /// Writes every part before it syncs any, so the disk work of a batch is waited for
    /// about once rather than once per part.
    std::vector<bool> putMany(const std::vector<NewPart>& parts) override;
    bool contains(std::string_view fingerprint) override;
    std::optional<std::string> get(std::string_view fingerprint) override;
    std::optional<FileSlice> open(std::string_view fingerprint) override;
    void forEach(const std::function<void(const StoredPart&)>& visit) override;
    bool remove(std::string_view fingerprint, std::int64_t writtenBefore) override;
    std::uint64_t quarantined() const override { return quarantined_.load(); }

    std::filesystem::path pathOf(std::string_view fingerprint) const;

private:
    /// The part's file, open, and its size; nothing when it is absent or empty.
    std::optional<FileSlice> openFile(std::string_view fingerprint) const;
    /// Reads the whole part past the page cache into a block of `buffers_`; nothing when
    /// no block is free or the file system refuses (the caller then reads through the
    /// page cache).
    std::shared_ptr<unsigned char> readDirect(int fd, std::size_t size);
    /// Moves the damaged file that `fd` has open out of the way, unless a new upload has
    /// already replaced it.
    void quarantine(std::string_view fingerprint, int fd);

    std::filesystem::path root_;
    Env& env_;
    /// The lock held around every rename into or out of a part's place, so that a
    /// reader moving a damaged file aside never moves the good one an upload just put
    /// there. One per part folder (by the fingerprint's first byte).
    std::mutex& placeLock(std::string_view fingerprint);
    std::array<std::mutex, 256> placeLocks_;
    std::atomic<std::uint64_t> quarantined_{0};
    PartBuffers buffers_;
};

}  // namespace zarnu::cloud
