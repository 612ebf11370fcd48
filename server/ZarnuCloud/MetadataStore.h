#pragma once
// Metadata of the cloud: accounts, tokens, the per-account file tree, which parts each
// account holds, public links and small settings. The default implementation is
// SqliteMetadataStore; another database can be added by implementing this interface.
//
// Contract for every implementation:
//  * Every method is safe to call from many threads at once.
//  * Every mutating method is one atomic transaction: it either happens completely or
//    not at all, and is durable when it returns.
//  * Entries are addressed by sort keys (see CloudPath). Each account has a root folder
//    with the empty key, created with the account.
//  * Failures the client caused throw ApiError with the documented code; storage
//    failures throw std::runtime_error.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zarnu::cloud {

using AccountId = std::int64_t;
using EntryId = std::int64_t;

struct Account {
    AccountId id = 0;
    std::string name;
    std::string passwordHash;
    std::string displayName;
};

struct PartRef {
    std::string fingerprint;
    std::uint64_t size = 0;
};

struct PartLocation {
    std::string fingerprint;
    std::uint64_t size = 0;
    std::uint64_t offset = 0;
};

struct Entry {
    EntryId id = 0;
    EntryId parent = 0;        ///< 0 for the root
    std::string key;           ///< sort key; empty for the root
    std::string name;          ///< empty for the root
    bool folder = false;
    std::uint64_t size = 0;
    std::int64_t modified = 0;
    std::int64_t deleted = 0;  ///< deletion time, 0 when live
    std::int64_t deleteOp = 0; ///< entries deleted together share this value
    std::uint64_t contained = 0;  ///< live direct children (folders)
    std::uint64_t partCount = 0;  ///< parts (files)
    std::int64_t changeSeq = 0;   ///< the account's change sequence when this entry last changed
};

/// One path of the change feed: its current entry, or `gone` when no entry (live or
/// deleted) is at the path any more; then only `entry.key` is set.
struct TreeChange {
    std::int64_t seq = 0;
    bool gone = false;
    Entry entry;
};

struct TreeChangePage {
    std::vector<TreeChange> changes;  ///< in (seq, key) order
    bool more = false;                ///< more changes follow the last one listed
    std::int64_t headSeq = 0;         ///< the account's change sequence in the same snapshot
};

/// A conditional write: the id of the version the client expects at the path, 0 meaning
/// "no live file". Absent means unconditional.
using IfVersion = std::optional<EntryId>;

struct Link {
    AccountId account = 0;
    std::vector<std::string> keys;  ///< sort keys of the linked paths
};

struct ChangeResult {
    std::uint64_t count = 0;  ///< entries changed
    Entry entry;              ///< the entry named by the request, after the change
};

/// Selector meaning "the latest deleted state" for undelete().
inline constexpr std::uint64_t kLatestDeleted = ~std::uint64_t{0};

class MetadataStore {
public:
    virtual ~MetadataStore() = default;

    // --- accounts and tokens ---
    virtual std::optional<Account> accountByName(std::string_view name) = 0;
    virtual std::optional<Account> accountById(AccountId id) = 0;
    virtual std::vector<Account> accounts() = 0;
    /// Creates an account with its root folder; throws ApiError(55) when the name exists.
    virtual AccountId createAccount(std::string_view name, std::string_view passwordHash, std::int64_t now) = 0;
    virtual void addToken(std::string_view tokenHash, AccountId account, std::int64_t now) = 0;
    virtual std::optional<AccountId> accountByToken(std::string_view tokenHash) = 0;
    virtual void removeToken(std::string_view tokenHash) = 0;

    // --- token lifetime and account roles ---
    /// The account of a live token: one made or last used less than `lifetime` seconds
    /// before `now`. A live token last marked used more than `refreshAfter` seconds ago is
    /// marked used at `now` (so that a token in use never expires); an expired one is
    /// removed and answers nothing.
    virtual std::optional<AccountId> useToken(std::string_view tokenHash, std::int64_t now, std::int64_t lifetime,
                                              std::int64_t refreshAfter) = 0;
    /// Removes the account's least recently used tokens until at most `keep` remain;
    /// never the token `newestHash` (the one just made, whose time may equal others').
    virtual void trimTokens(AccountId account, std::size_t keep, std::string_view newestHash) = 0;
    /// Removes every token made or last used before `before`; returns how many.
    virtual std::size_t removeTokensUnusedSince(std::int64_t before) = 0;
    /// Whether the account has the role (a short lower-case name such as "build").
    virtual bool hasRole(AccountId account, std::string_view role) = 0;
    /// Grants (on) or withdraws (!on) the role; doing what is already so changes nothing.
    virtual void setRole(AccountId account, std::string_view role, bool on) = 0;

    // --- parts held by accounts ---
    /// Size recorded when the account uploaded the part, or nothing when it does not hold it.
    virtual std::optional<std::uint64_t> heldPartSize(AccountId account, std::string_view fingerprint) = 0;
    /// Records that the account holds these parts (call only once their bytes are durable).
    virtual void addHeldParts(AccountId account, const std::vector<PartRef>& parts) = 0;
    /// Whether any file of the account (any version, deleted or not) references the part.
    virtual bool accountReferencesPart(AccountId account, std::string_view fingerprint) = 0;
    /// Whether this file (this version) references the part: one index look-up, however
    /// many parts the file has.
    virtual bool fileReferencesPart(EntryId file, std::string_view fingerprint) = 0;

    // --- reading the tree ---
    virtual std::optional<Entry> entryByKey(AccountId account, std::string_view key) = 0;
    /// Also finds earlier versions of files that were replaced since.
    virtual std::optional<Entry> entryById(AccountId account, EntryId id) = 0;
    /// Direct children of the folder with key `folderKey` whose keys are > afterKey, in key
    /// order, at most `limit`.
    virtual std::vector<Entry> children(AccountId account, std::string_view folderKey, std::string_view afterKey,
                                        bool includeDeleted, std::size_t limit) = 0;
    /// All descendants of `key` whose keys are > afterKey, in key order, at most `limit`.
    virtual std::vector<Entry> descendants(AccountId account, std::string_view key, std::string_view afterKey,
                                           bool includeDeleted, std::size_t limit) = 0;
    /// The file's parts in order; limit 0 means all.
    virtual std::vector<PartLocation> fileParts(EntryId file, std::size_t limit) = 0;

    // --- changing the tree ---
    /// Creates or replaces the file at `key` from parts the account holds. Throws
    /// ApiError 162 (with `missing`) when a part is not held with that size, 172 when a
    /// parent is a live file, 181 when a live folder is at the key. Creates missing
    /// parents and revives deleted ones.
    /// With `ifVersion`, throws ApiError 202 (with `current`) and changes nothing unless the
    /// live file at `key` is that version, or, for 0, no live entry is there.
    virtual Entry createFile(AccountId account, std::string_view key, const std::vector<PartRef>& parts,
                             std::int64_t modified, std::int64_t now, IfVersion ifVersion = {}) = 0;
    /// Creates the folder and missing parents; revives deleted ones; 172 when a live file
    /// is in the way.
    virtual Entry makeFolder(AccountId account, std::string_view key, std::int64_t now) = 0;
    /// Marks the live entry and its live descendants deleted; 174 when there is none.
    /// With `ifVersion`: 202 (with `current`) unless the live entry's id is that value.
    virtual ChangeResult softDelete(AccountId account, std::string_view key, std::int64_t now,
                                    IfVersion ifVersion = {}) = 0;
    /// Restores the deleted entry at key (selected by its deleted time or kLatestDeleted),
    /// the descendants deleted with it and its deleted parents; 174 when there is none.
    virtual ChangeResult undelete(AccountId account, std::string_view key, std::uint64_t selector) = 0;

    // --- the change feed ---
    /// Every change to an account's tree (in the same transaction) raises the account's
    /// change sequence by one and stamps each entry it touched with it; a path whose
    /// entries leave the tree is remembered as gone with that sequence.
    virtual std::int64_t changeSeq(AccountId account) = 0;
    /// The paths (never the root) whose last change is after (afterSeq, afterKey) in
    /// (seq, key) order, at most `limit`, read in one snapshot. Without `afterKey`, all
    /// paths of change `afterSeq` count as listed; afterSeq -1 lists all.
    virtual TreeChangePage changesSince(AccountId account, std::int64_t afterSeq, std::optional<std::string_view> afterKey,
                                        std::size_t limit) = 0;

    // --- public links ---
    virtual void addLink(std::string_view tokenHash, AccountId account, const std::vector<std::string>& keys,
                         std::int64_t now) = 0;
    virtual std::optional<Link> linkByToken(std::string_view tokenHash) = 0;

    // --- settings (small named JSON documents) ---
    virtual std::optional<std::string> setting(std::string_view name) = 0;
    /// Replaces the setting with update(current value) in one transaction. When update
    /// throws, nothing changes and the exception propagates.
    virtual void updateSetting(std::string_view name,
                               const std::function<std::string(const std::optional<std::string>&)>& update) = 0;

    // --- storage accounting: quotas and collecting unused parts ---
    /// The account's quota in bytes of parts it holds; nothing when it has none.
    virtual std::optional<std::uint64_t> quota(AccountId account) = 0;
    /// Sets (or, with nothing, lifts) the account's quota.
    virtual void setQuota(AccountId account, std::optional<std::uint64_t> bytes) = 0;
    /// Bytes of all the parts the account holds, each counted once.
    virtual std::uint64_t heldBytes(AccountId account) = 0;
    /// addHeldParts() that also stamps the parts with `now` and, in the same transaction,
    /// refuses with ApiError QuotaExceeded (recording nothing) when the parts new to the
    /// account would take it past its quota.
    virtual void holdParts(AccountId account, const std::vector<PartRef>& parts, std::int64_t now) = 0;
    /// How many accounts hold the part: its reference count.
    virtual std::uint64_t partHolders(std::string_view fingerprint) = 0;
    /// Forgets, for every account, the parts it holds since before `heldBefore` that no
    /// file of the account (live, deleted or an earlier version) uses: uploads that
    /// never became a file. Returns how many it forgot.
    virtual std::uint64_t releaseUnusedParts(std::int64_t heldBefore) = 0;
};

}  // namespace zarnu::cloud
