#pragma once
// MetadataStore on SQLite: WAL journal, synchronous FULL, a busy timeout, a small pool of
// connections (readers run in parallel; writers take an in-process lock and BEGIN
// IMMEDIATE so other processes using the same file, e.g. `zarnu-cloud user add`, are
// serialised by SQLite itself). Thread-safe.
//
// Given an Env other than Env::posix(), SQLite's file changes go through it (see
// SqliteEnvVfs.h); otherwise SQLite uses its own unix file layer.

#include "Env.h"
#include "MetadataStore.h"

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>

namespace zarnu::cloud {

class SqliteMetadataStore final : public MetadataStore {
public:
    /// Opens (creating when needed) the database file and its schema; throws
    /// std::runtime_error naming the file when it cannot. `env` must outlive the store.
    explicit SqliteMetadataStore(std::filesystem::path file, std::size_t maxConnections = 8,
                                 Env& env = Env::posix());
    ~SqliteMetadataStore() override;

    SqliteMetadataStore(const SqliteMetadataStore&) = delete;
    SqliteMetadataStore& operator=(const SqliteMetadataStore&) = delete;

    std::optional<Account> accountByName(std::string_view name) override;
    std::optional<Account> accountById(AccountId id) override;
    std::vector<Account> accounts() override;
    AccountId createAccount(std::string_view name, std::string_view passwordHash, std::int64_t now) override;
    void addToken(std::string_view tokenHash, AccountId account, std::int64_t now) override;
    std::optional<AccountId> accountByToken(std::string_view tokenHash) override;
    void removeToken(std::string_view tokenHash) override;
    std::optional<AccountId> useToken(std::string_view tokenHash, std::int64_t now, std::int64_t lifetime,
                                      std::int64_t refreshAfter) override;
    void trimTokens(AccountId account, std::size_t keep, std::string_view newestHash) override;
    std::size_t removeTokensUnusedSince(std::int64_t before) override;
    bool hasRole(AccountId account, std::string_view role) override;
    void setRole(AccountId account, std::string_view role, bool on) override;

    std::optional<std::uint64_t> heldPartSize(AccountId account, std::string_view fingerprint) override;
    void addHeldParts(AccountId account, const std::vector<PartRef>& parts) override;
    bool accountReferencesPart(AccountId account, std::string_view fingerprint) override;
    bool fileReferencesPart(EntryId file, std::string_view fingerprint) override;

    std::optional<Entry> entryByKey(AccountId account, std::string_view key) override;
    std::optional<Entry> entryById(AccountId account, EntryId id) override;
    std::vector<Entry> children(AccountId account, std::string_view folderKey, std::string_view afterKey,
                                bool includeDeleted, std::size_t limit) override;
    std::vector<Entry> descendants(AccountId account, std::string_view key, std::string_view afterKey,
                                   bool includeDeleted, std::size_t limit) override;
    std::vector<PartLocation> fileParts(EntryId file, std::size_t limit) override;

    Entry createFile(AccountId account, std::string_view key, const std::vector<PartRef>& parts, std::int64_t modified,
                     std::int64_t now, IfVersion ifVersion = {}) override;
    Entry makeFolder(AccountId account, std::string_view key, std::int64_t now) override;
    ChangeResult softDelete(AccountId account, std::string_view key, std::int64_t now, IfVersion ifVersion = {}) override;
    ChangeResult undelete(AccountId account, std::string_view key, std::uint64_t selector) override;

    std::int64_t changeSeq(AccountId account) override;
    TreeChangePage changesSince(AccountId account, std::int64_t afterSeq, std::optional<std::string_view> afterKey,
                                std::size_t limit) override;

    void addLink(std::string_view tokenHash, AccountId account, const std::vector<std::string>& keys,
                 std::int64_t now) override;
    std::optional<Link> linkByToken(std::string_view tokenHash) override;

    std::optional<std::string> setting(std::string_view name) override;
    void updateSetting(std::string_view name,
                       const std::function<std::string(const std::optional<std::string>&)>& update) override;

    std::optional<std::uint64_t> quota(AccountId account) override;
    void setQuota(AccountId account, std::optional<std::uint64_t> bytes) override;
    std::uint64_t heldBytes(AccountId account) override;
    void holdParts(AccountId account, const std::vector<PartRef>& parts, std::int64_t now) override;
    std::uint64_t partHolders(std::string_view fingerprint) override;
    std::uint64_t releaseUnusedParts(std::int64_t heldBefore) override;

    class Connection;

private:
    class Lease;
    Lease acquire();
    void release(std::unique_ptr<Connection> connection);

    std::filesystem::path file_;
    std::size_t maxConnections_;
    Env& env_;
    std::string vfs_;  ///< SQLite file layer for env_; empty for SQLite's own
    std::size_t openConnections_ = 0;
    std::vector<std::unique_ptr<Connection>> idle_;
    std::mutex poolMutex_;
    std::condition_variable poolReady_;
    std::mutex writeMutex_;
};

}  // namespace zarnu::cloud
