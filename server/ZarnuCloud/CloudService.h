#pragma once
// The cloud's operations, independent of HTTP and JSON: logins and tokens, listing,
// part upload/download, file and folder changes, public links. Holds references to the
// stores and the counters; they must outlive it. Thread-safe (all state lives in the
// stores, which are thread-safe).

#include "ChangeNotifier.h"
#include "Lister.h"
#include "MetadataStore.h"
#include "FileSlice.h"
#include "PartPins.h"
#include "PartStore.h"
#include "Stats.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zarnu::cloud {

class BodySource;
struct UploadedPart;

struct LoginResult {
    Account account;
    std::string token;
};

struct DownloadedPart {
    std::string fingerprint;
    enum class Status { Ok, Missing, Later } status = Status::Missing;
    std::optional<FileSlice> file;  ///< the part's bytes, when Ok
};

/// What a public link shows: one file, or a listing of files.
struct LinkView {
    AccountId account = 0;
    bool singleFile = false;
    std::vector<Entry> files;
};

/// One answer of the change feed.
struct FeedPage {
    std::vector<TreeChange> changes;
    std::string cursor;  ///< hand back for the changes after these
    bool more = false;   ///< more changes follow at once
    bool reset = false;  ///< the listing starts from nothing: it is the whole tree
};

class CloudService {
public:
    static constexpr std::size_t kMaxMissingQuery = 10000;
    static constexpr std::size_t kMaxDownloadParts = 100;
    static constexpr std::size_t kMaxDownloadBytes = 8 * 1024 * 1024;
    static constexpr std::size_t kMaxLinkPaths = 100;
    static constexpr std::size_t kMaxLinkFiles = 10000;
    static constexpr unsigned kMaxFeedWaitSeconds = 60;
    static constexpr std::size_t kMaxFeedLimit = 10000;
    /// A token expires this long after it was made or last used.
    static constexpr std::int64_t kTokenLifetimeSeconds = 30 * 24 * 60 * 60;
    /// A token's use time is written at most this often (reads are not writes).
    static constexpr std::int64_t kTokenRefreshSeconds = 10 * 60;
    /// A password login beyond this many tokens revokes the account's least recently used.
    static constexpr std::size_t kMaxTokensPerAccount = 100;
    /// The role that may read and post the account's build slots.
    static constexpr std::string_view kBuildRole = "build";

    CloudService(MetadataStore& meta, PartStore& parts, Stats& stats);

    /// Same error (191) for an unknown user and a wrong password.
    LoginResult loginWithPassword(std::string_view user, std::string_view password);
    /// 191 for an unknown or expired token.
    LoginResult loginWithToken(std::string_view token);
    /// The account a live bearer token belongs to (its use refreshes it); 177 when there
    /// is none or it expired.
    AccountId authenticate(std::string_view token);
    void logout(std::string_view token);
    /// Creates an account (the user name must be 1..64 of A-Z a-z 0-9 . _ @ + -).
    AccountId addUser(std::string_view name, std::string_view password);
    static bool isValidUserName(std::string_view name);

    ListPage list(AccountId account, const ListRequest& request);
    std::vector<std::string> missingParts(AccountId account, const std::vector<std::string>& fingerprints);
    /// Verifies every part of the batch, then stores and credits them; returns the number
    /// of parts received. 169 (nothing stored) when a part does not match its fingerprint,
    /// 210 (nothing credited) when the parts would take the account past its quota, 211
    /// when the disk is full. Every part is written and synced whether or not the store
    /// held it before, so neither the answer nor its timing tells what others stored.
    std::size_t uploadParts(AccountId account, std::string_view body);
    Entry createFile(AccountId account, std::string_view path, const std::vector<PartRef>& parts,
                     std::optional<std::int64_t> modified, IfVersion ifVersion = {});
    std::vector<DownloadedPart> downloadParts(AccountId account, EntryId file,
                                              const std::vector<std::string>& fingerprints);
    Entry makeFolder(AccountId account, std::string_view path);
    ChangeResult remove(AccountId account, std::string_view path, IfVersion ifVersion = {});
    ChangeResult undelete(AccountId account, std::string_view path, std::uint64_t selector);

    /// The changes after `cursor` ("" for the whole tree), at most `limit` paths. With
    /// nothing to report and `waitSeconds` > 0, waits for a change of this account (or
    /// the time, or shutdown). 55 for a cursor this service did not issue, a wait above
    /// kMaxFeedWaitSeconds or a limit outside 1..kMaxFeedLimit.
    FeedPage changes(AccountId account, std::string_view cursor, std::uint64_t waitSeconds, std::uint64_t limit);
    /// Ends held change-feed requests at once (the service is stopping).
    void shutdown() { notifier_.shutdown(); }

    /// Returns the link token (128 random bits, hex).
    std::string createLink(AccountId account, const std::vector<std::string>& paths);
    /// 174 when the token is unknown or nothing live is behind it.
    LinkView openLink(std::string_view token);
    /// The file with that id when the link reaches it (a live file linked, or below a
    /// live linked folder), found by the id, not by listing; 174 otherwise.
    Entry linkedFile(std::string_view token, EntryId id);
    /// Streams a file's bytes part by part.
    std::unique_ptr<BodySource> fileBytes(const Entry& file);

    MetadataStore& meta() { return meta_; }
    Stats& stats() { return stats_; }
    /// The parts uploads in flight are storing (for the PartCollector).
    PartPins& pins() { return pins_; }

private:
    std::vector<Entry> reachableFiles(const Link& link);
    /// 210 when the parts new to the account would take it past its quota.
    void checkQuota(AccountId account, const std::vector<UploadedPart>& parts);

    MetadataStore& meta_;
    PartStore& parts_;
    Stats& stats_;
    Lister lister_;
    ChangeNotifier notifier_;
    PartPins pins_;
};

/// Current time, Unix seconds.
std::int64_t unixNow();

}  // namespace zarnu::cloud
