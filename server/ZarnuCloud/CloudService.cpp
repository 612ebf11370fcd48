#include "CloudService.h"

#include "ApiError.h"
#include "CloudPath.h"
#include "Fingerprint.h"
#include "HttpTypes.h"
#include "PartBatch.h"
#include "Secrets.h"

#include <algorithm>
#include <chrono>
#include <vector>
#include <unordered_set>

namespace zarnu::cloud {

std::int64_t unixNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

namespace {

constexpr std::size_t kTokenBytes = 32;
constexpr std::size_t kLinkTokenBytes = 16;

bool isLowerHex(std::string_view s, std::size_t length) {
    if (s.size() != length) return false;
    for (char c : s)
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    return true;
}

ApiError badLogin() { return ApiError(ErrorCode::BadLogin, "Incorrect username or password"); }

std::string keyOfPath(std::string_view path) { return CloudPath::keyOf(CloudPath::parse(path)); }

// Streams a file's parts from the part store, one part per chunk.
class FileBodySource final : public BodySource {
public:
    FileBodySource(PartStore& parts, Stats& stats, std::vector<PartLocation> locations)
        : parts_(parts), stats_(stats), locations_(std::move(locations)) {}

    bool next(std::string& chunk) override {
        if (index_ >= locations_.size()) return false;
        const PartLocation& loc = locations_[index_++];
        auto bytes = parts_.get(loc.fingerprint);
        if (!bytes || bytes->size() != loc.size) throw std::runtime_error("part " + loc.fingerprint + " is unreadable");
        stats_.partsSent++;
        stats_.bytesSent += bytes->size();
        chunk = std::move(*bytes);
        return true;
    }

private:
    PartStore& parts_;
    Stats& stats_;
    std::vector<PartLocation> locations_;
    std::size_t index_ = 0;
};

}  // namespace

CloudService::CloudService(MetadataStore& meta, PartStore& parts, Stats& stats)
    : meta_(meta), parts_(parts), stats_(stats), lister_(meta) {}

// ---- accounts ----

bool CloudService::isValidUserName(std::string_view name) {
    if (name.empty() || name.size() > 64) return false;
    for (char c : name) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
                  c == '@' || c == '+' || c == '-';
        if (!ok) return false;
    }
    return true;
}

AccountId CloudService::addUser(std::string_view name, std::string_view password) {
    if (!isValidUserName(name))
        throw ApiError(ErrorCode::BadInput,
                       "Invalid user name \"" + std::string(name.substr(0, 80)) +
                           "\": use 1 to 64 of the characters A-Z a-z 0-9 . _ @ + -");
    if (password.empty()) throw ApiError(ErrorCode::BadInput, "The password is empty");
    return meta_.createAccount(name, Secrets::hashPassword(password), unixNow());
}

LoginResult CloudService::loginWithPassword(std::string_view user, std::string_view password) {
    auto account = meta_.accountByName(user);
    if (!account) {
        Secrets::burnPasswordCheck(password);
        stats_.loginsFailed++;
        throw badLogin();
    }
    if (!Secrets::verifyPassword(account->passwordHash, password)) {
        stats_.loginsFailed++;
        throw badLogin();
    }
    std::string token = Secrets::randomHex(kTokenBytes);
    const std::string tokenHash = Secrets::sha256(token);
    const std::int64_t now = unixNow();
    meta_.addToken(tokenHash, account->id, now);
    meta_.trimTokens(account->id, kMaxTokensPerAccount, tokenHash);
    meta_.removeTokensUnusedSince(now - kTokenLifetimeSeconds);
    stats_.logins++;
    return {*account, token};
}

LoginResult CloudService::loginWithToken(std::string_view token) {
    // Tokens are looked up by their SHA-256 digest, so lookup timing says nothing about
    // the token itself.
    std::optional<AccountId> id;
    if (isLowerHex(token, kTokenBytes * 2))
        id = meta_.useToken(Secrets::sha256(token), unixNow(), kTokenLifetimeSeconds, kTokenRefreshSeconds);
    auto account = id ? meta_.accountById(*id) : std::nullopt;
    if (!account) {
        stats_.loginsFailed++;
        throw badLogin();
    }
    stats_.logins++;
    return {*account, std::string(token)};
}

AccountId CloudService::authenticate(std::string_view token) {
    if (isLowerHex(token, kTokenBytes * 2))
        if (auto id = meta_.useToken(Secrets::sha256(token), unixNow(), kTokenLifetimeSeconds, kTokenRefreshSeconds))
            return *id;
    throw ApiError(ErrorCode::NotLoggedIn, "The user is not logged in");
}

void CloudService::logout(std::string_view token) { meta_.removeToken(Secrets::sha256(token)); }

// ---- listing and parts ----

ListPage CloudService::list(AccountId account, const ListRequest& request) { return lister_.list(account, request); }

std::vector<std::string> CloudService::missingParts(AccountId account, const std::vector<std::string>& fingerprints) {
    if (fingerprints.size() > kMaxMissingQuery)
        throw ApiError(ErrorCode::TooLarge, "The request is too large: at most 10000 fingerprints");
    std::vector<std::string> missing;
    std::unordered_set<std::string> seen;
    for (const auto& fp : fingerprints) {
        if (!Fingerprint::isWellFormed(fp))
            throw ApiError(ErrorCode::BadInput, "Malformed fingerprint \"" + fp.substr(0, 80) + "\"");
        if (!seen.insert(fp).second) continue;
        // A held part whose bytes were found damaged (and moved aside) is asked for
        // again: the upload that follows repairs it.
        if (!meta_.heldPartSize(account, fp) || !parts_.contains(fp)) missing.push_back(fp);
    }
    return missing;
}

std::size_t CloudService::uploadParts(AccountId account, std::string_view body) {
    const auto parts = PartBatch::parseUpload(body);
    for (const auto& p : parts) {
        stats_.partsReceived++;
        stats_.bytesReceived += p.bytes.size();
    }
    // Nothing is written unless every part of the batch matches its fingerprint;
    // then they are written and synced together.
    std::vector<std::string_view> bytes;
    for (const auto& p : parts) bytes.push_back(p.bytes);
    const std::vector<std::string> computed = Fingerprint::ofMany(bytes);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (computed[i] != parts[i].fingerprint) {
            stats_.partsRejected++;
            throw ApiError(ErrorCode::PartInvalid, "A part failed to be validated: " + parts[i].fingerprint);
        }
    }
    checkQuota(account, parts);
    std::vector<PartStore::NewPart> toStore;
    std::vector<std::string> fingerprints;
    for (const auto& p : parts) {
        toStore.push_back({p.fingerprint, p.bytes});
        fingerprints.push_back(p.fingerprint);
    }
    // Pinned until the hold is recorded: the collector leaves the parts alone meanwhile.
    const PartPins::Pin pin = pins_.pin(std::move(fingerprints));
    const std::vector<bool> stored = parts_.putMany(toStore);
    std::vector<PartRef> held;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (stored[i]) {
            stats_.partsStored++;
            stats_.bytesStored += parts[i].bytes.size();
        }
        held.push_back({parts[i].fingerprint, parts[i].bytes.size()});
    }
    meta_.holdParts(account, held, unixNow());
    return parts.size();
}

void CloudService::checkQuota(AccountId account, const std::vector<UploadedPart>& parts) {
    // A first look before any byte is written; holdParts() checks again atomically.
    const std::optional<std::uint64_t> limit = meta_.quota(account);
    if (!limit) return;
    std::uint64_t adding = 0;
    std::unordered_set<std::string_view> seen;
    for (const auto& p : parts)
        if (seen.insert(p.fingerprint).second && !meta_.heldPartSize(account, p.fingerprint)) adding += p.bytes.size();
    const std::uint64_t used = meta_.heldBytes(account);
    if (adding > 0 && used + adding > *limit)
        throw ApiError(ErrorCode::QuotaExceeded, "The account's storage quota is exceeded: these parts need " +
                                                     std::to_string(used + adding) + " bytes, the quota is " +
                                                     std::to_string(*limit) + " bytes");
}

Entry CloudService::createFile(AccountId account, std::string_view path, const std::vector<PartRef>& parts,
                               std::optional<std::int64_t> modified, IfVersion ifVersion) {
    const std::string key = keyOfPath(path);
    for (const auto& p : parts) {
        if (!Fingerprint::isWellFormed(p.fingerprint))
            throw ApiError(ErrorCode::BadInput, "Malformed fingerprint \"" + p.fingerprint.substr(0, 80) + "\"");
        if (p.size < 1 || p.size > Fingerprint::kMaxPartSize)
            throw ApiError(ErrorCode::BadInput, "A part size must be between 1 and 1048576");
    }
    const std::int64_t now = unixNow();
    Entry e = meta_.createFile(account, key, parts, modified.value_or(now), now, ifVersion);
    notifier_.notify();
    stats_.filesCreated++;
    return e;
}

std::vector<DownloadedPart> CloudService::downloadParts(AccountId account, EntryId file,
                                                        const std::vector<std::string>& fingerprints) {
    if (fingerprints.size() > kMaxDownloadParts)
        throw ApiError(ErrorCode::TooLarge, "The request is too large: at most 100 parts per batch");
    auto entry = meta_.entryById(account, file);
    if (!entry) throw ApiError(ErrorCode::NotFound, "The file specified does not exist: id " + std::to_string(file));
    if (entry->folder) throw ApiError(ErrorCode::IsFolder, "The target path is a folder: id " + std::to_string(file));

    std::vector<DownloadedPart> out;
    std::size_t bytes = 0;
    for (const auto& fp : fingerprints) {
        DownloadedPart part;
        part.fingerprint = fp;
        if (!Fingerprint::isWellFormed(fp))
            throw ApiError(ErrorCode::BadInput, "Malformed fingerprint \"" + fp.substr(0, 80) + "\"");
        if (bytes >= kMaxDownloadBytes) {
            part.status = DownloadedPart::Status::Later;
        } else if (meta_.fileReferencesPart(entry->id, fp) || meta_.accountReferencesPart(account, fp)) {
            if (auto file = parts_.open(fp)) {
                if (bytes > 0 && bytes + file->size > kMaxDownloadBytes) {
                    part.status = DownloadedPart::Status::Later;
                    bytes = kMaxDownloadBytes;
                } else {
                    bytes += file->size;
                    part.status = DownloadedPart::Status::Ok;
                    stats_.partsSent++;
                    stats_.bytesSent += file->size;
                    part.file = std::move(file);
                }
            }
        }
        out.push_back(std::move(part));
    }
    return out;
}

// ---- tree changes ----

Entry CloudService::makeFolder(AccountId account, std::string_view path) {
    Entry e = meta_.makeFolder(account, keyOfPath(path), unixNow());
    notifier_.notify();
    return e;
}

ChangeResult CloudService::remove(AccountId account, std::string_view path, IfVersion ifVersion) {
    ChangeResult r = meta_.softDelete(account, keyOfPath(path), unixNow(), ifVersion);
    notifier_.notify();
    return r;
}

ChangeResult CloudService::undelete(AccountId account, std::string_view path, std::uint64_t selector) {
    ChangeResult r = meta_.undelete(account, keyOfPath(path), selector);
    notifier_.notify();
    return r;
}

// ---- the change feed ----

namespace {

// A cursor is "<seq>" (everything up to that change) or "<seq>.<hex key>" (inside a
// change whose paths span pages: up to that key).
struct FeedPosition {
    std::int64_t seq = -1;
    std::optional<std::string> key;  // set inside a change that spans pages
};

std::string formatCursor(std::int64_t seq, std::string_view key, bool withKey) {
    std::string out = std::to_string(seq);
    if (!withKey) return out;
    static const char* digits = "0123456789abcdef";
    out += '.';
    for (unsigned char c : key) {
        out += digits[c >> 4];
        out += digits[c & 0x0F];
    }
    return out;
}

std::optional<FeedPosition> parseCursor(std::string_view text) {
    FeedPosition p;
    const auto dot = text.find('.');
    const std::string_view number = text.substr(0, dot);
    if (number.empty() || number.size() > 18) return std::nullopt;
    p.seq = 0;
    for (char c : number) {
        if (c < '0' || c > '9') return std::nullopt;
        p.seq = p.seq * 10 + (c - '0');
    }
    if (dot == std::string_view::npos) return p;
    const std::string_view hex = text.substr(dot + 1);
    if (hex.empty() || hex.size() % 2 != 0) return std::nullopt;
    p.key.emplace();
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int hi = nibble(hex[i]), lo = nibble(hex[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        *p.key += static_cast<char>(hi * 16 + lo);
    }
    return p;
}

}  // namespace

FeedPage CloudService::changes(AccountId account, std::string_view cursor, std::uint64_t waitSeconds,
                               std::uint64_t limit) {
    if (waitSeconds > kMaxFeedWaitSeconds)
        throw ApiError(ErrorCode::BadInput, "The field \"timeout\" must be at most 60 seconds, not " +
                                                std::to_string(waitSeconds));
    if (limit < 1 || limit > kMaxFeedLimit)
        throw ApiError(ErrorCode::BadInput, "The field \"limit\" must be between 1 and 10000, not " +
                                                std::to_string(limit));
    FeedPosition from;
    const bool reset = cursor.empty();
    if (!reset) {
        const auto parsed = parseCursor(cursor);
        if (!parsed || parsed->seq > meta_.changeSeq(account))
            throw ApiError(ErrorCode::BadInput,
                           "The cursor \"" + std::string(cursor.substr(0, 80)) + "\" was not issued by this service");
        from = *parsed;
    }
    std::optional<std::string_view> fromKey;
    if (from.key) fromKey = *from.key;
    TreeChangePage page = meta_.changesSince(account, from.seq, fromKey, limit);
    if (page.changes.empty() && !reset && waitSeconds > 0) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(waitSeconds);
        const std::int64_t head = page.headSeq;
        if (notifier_.waitFor([&] { return meta_.changeSeq(account) > head; }, deadline))
            page = meta_.changesSince(account, from.seq, fromKey, limit);
    }
    FeedPage out;
    out.reset = reset;
    out.more = page.more;
    if (page.more) {
        out.cursor = formatCursor(page.changes.back().seq, page.changes.back().entry.key, true);
    } else {
        // Everything up to the snapshot's head was listed (it may have no paths: a change
        // that left the tree as it was).
        out.cursor = formatCursor(std::max(page.headSeq, from.seq), {}, false);
    }
    out.changes = std::move(page.changes);
    return out;
}

// ---- public links ----

std::string CloudService::createLink(AccountId account, const std::vector<std::string>& paths) {
    if (paths.empty()) throw ApiError(ErrorCode::BadInput, "A link needs at least one path");
    if (paths.size() > kMaxLinkPaths) throw ApiError(ErrorCode::TooLarge, "The request is too large: at most 100 paths");
    std::vector<std::string> keys;
    for (const auto& p : paths) {
        std::string key = keyOfPath(p);
        auto e = meta_.entryByKey(account, key);
        if (!e || e->deleted) throw ApiError(ErrorCode::NotFound, "The file specified does not exist: " + p);
        keys.push_back(std::move(key));
    }
    std::string token = Secrets::randomHex(kLinkTokenBytes);
    meta_.addLink(Secrets::sha256(token), account, keys, unixNow());
    return token;
}

std::vector<Entry> CloudService::reachableFiles(const Link& link) {
    std::vector<Entry> files;
    for (const auto& key : link.keys) {
        auto e = meta_.entryByKey(link.account, key);
        if (!e || e->deleted) continue;
        if (!e->folder) {
            files.push_back(*e);
        } else {
            std::string after;
            while (files.size() < kMaxLinkFiles) {
                auto batch = meta_.descendants(link.account, key, after, false, 1000);
                for (auto& d : batch)
                    if (!d.folder && files.size() < kMaxLinkFiles) files.push_back(std::move(d));
                if (batch.size() < 1000) break;
                after = batch.back().key;
            }
        }
    }
    return files;
}

LinkView CloudService::openLink(std::string_view token) {
    auto notFound = [] { return ApiError(ErrorCode::NotFound, "The file specified does not exist"); };
    if (!isLowerHex(token, kLinkTokenBytes * 2)) throw notFound();
    auto link = meta_.linkByToken(Secrets::sha256(token));
    if (!link) throw notFound();
    LinkView view;
    view.account = link->account;
    if (link->keys.size() == 1) {
        auto e = meta_.entryByKey(link->account, link->keys[0]);
        if (!e || e->deleted) throw notFound();
        if (!e->folder) {
            view.singleFile = true;
            view.files.push_back(*e);
            return view;
        }
    }
    view.files = reachableFiles(*link);
    if (view.files.empty()) {
        // A link to empty folders still answers an (empty) listing when the folders live.
        bool anyLive = false;
        for (const auto& key : link->keys) {
            auto e = meta_.entryByKey(link->account, key);
            anyLive = anyLive || (e && !e->deleted);
        }
        if (!anyLive) throw notFound();
    }
    return view;
}

Entry CloudService::linkedFile(std::string_view token, EntryId id) {
    auto notFound = [] { return ApiError(ErrorCode::NotFound, "The file specified does not exist"); };
    if (!isLowerHex(token, kLinkTokenBytes * 2)) throw notFound();
    auto link = meta_.linkByToken(Secrets::sha256(token));
    if (!link) throw notFound();
    // The id may name an earlier version: only the live file now at its path counts.
    auto file = meta_.entryById(link->account, id);
    if (!file || file->folder || file->deleted) throw notFound();
    auto current = meta_.entryByKey(link->account, file->key);
    if (!current || current->id != id || current->deleted) throw notFound();
    for (const auto& key : link->keys) {
        if (key == file->key) return *current;
        if (!CloudPath::isDescendant(file->key, key)) continue;
        // A live file lies only below live folders, so the linked folder being live
        // is enough.
        auto folder = meta_.entryByKey(link->account, key);
        if (folder && folder->folder && !folder->deleted) return *current;
    }
    throw notFound();
}

std::unique_ptr<BodySource> CloudService::fileBytes(const Entry& file) {
    return std::make_unique<FileBodySource>(parts_, stats_, meta_.fileParts(file.id, 0));
}

}  // namespace zarnu::cloud
