#include "SqliteMetadataStore.h"

#include "ApiError.h"
#include "CloudPath.h"
#include "SqliteEnvVfs.h"

#include <sqlite3.h>

#include <stdexcept>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

namespace zarnu::cloud {

namespace {

constexpr int kBusyTimeoutMs = 15000;

const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS accounts(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  name TEXT NOT NULL UNIQUE,
  password_hash TEXT NOT NULL,
  display_name TEXT NOT NULL,
  created INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS tokens(
  hash BLOB PRIMARY KEY,
  account INTEGER NOT NULL,
  created INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS entries(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  account INTEGER NOT NULL,
  parent INTEGER NOT NULL,
  key BLOB,
  name TEXT NOT NULL,
  folder INTEGER NOT NULL,
  size INTEGER NOT NULL DEFAULT 0,
  modified INTEGER NOT NULL,
  deleted INTEGER NOT NULL DEFAULT 0,
  delete_op INTEGER NOT NULL DEFAULT 0,
  part_count INTEGER NOT NULL DEFAULT 0);
CREATE UNIQUE INDEX IF NOT EXISTS entries_by_key ON entries(account, key);
CREATE INDEX IF NOT EXISTS entries_by_parent ON entries(parent, key);
CREATE INDEX IF NOT EXISTS entries_live_children ON entries(parent, deleted);
CREATE TABLE IF NOT EXISTS file_parts(
  file INTEGER NOT NULL,
  idx INTEGER NOT NULL,
  fingerprint TEXT NOT NULL,
  size INTEGER NOT NULL,
  offset INTEGER NOT NULL,
  PRIMARY KEY(file, idx)) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS file_parts_by_fingerprint ON file_parts(fingerprint);
CREATE TABLE IF NOT EXISTS held_parts(
  account INTEGER NOT NULL,
  fingerprint TEXT NOT NULL,
  size INTEGER NOT NULL,
  PRIMARY KEY(account, fingerprint)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS links(
  hash BLOB PRIMARY KEY,
  account INTEGER NOT NULL,
  keys BLOB NOT NULL,
  created INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS settings(
  name TEXT PRIMARY KEY,
  value TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS counters(
  name TEXT PRIMARY KEY,
  value INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS gone(
  account INTEGER NOT NULL,
  key BLOB NOT NULL,
  seq INTEGER NOT NULL,
  PRIMARY KEY(account, key)) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS gone_by_seq ON gone(account, seq, key);
CREATE INDEX IF NOT EXISTS held_parts_by_fingerprint ON held_parts(fingerprint);
CREATE TABLE IF NOT EXISTS quotas(
  account INTEGER PRIMARY KEY,
  bytes INTEGER NOT NULL);
)sql";

// Run after kSchema: databases made before parts were collected gain the time an
// account last uploaded each part it holds (0: before that, long ago).
const char* kHeldSinceColumn = "ALTER TABLE held_parts ADD COLUMN since INTEGER NOT NULL DEFAULT 0";

// The error for a failed SQLite call: a full disk has its own code.
[[noreturn]] void databaseError(sqlite3* db, const std::string& message) {
    const int code = sqlite3_errcode(db);
    if (code == SQLITE_FULL || sqlite3_extended_errcode(db) == SQLITE_FULL)
        throw ApiError(ErrorCode::StorageFull, "The service's storage is full: nothing of this request was stored");
    throw std::runtime_error("database error: " + message);
}

// Run after kSchema: databases made before the change feed gain its column.
const char* kChangeSeqColumn = "ALTER TABLE entries ADD COLUMN change_seq INTEGER NOT NULL DEFAULT 0";
const char* kChangeSeqIndex = "CREATE INDEX IF NOT EXISTS entries_by_change ON entries(account, change_seq, key)";

// Run after kSchema: token use times and account roles. `last_used` 0 means "not used
// since it was made" (tokens made before tokens expired).
const char* kTokenUseColumn = "ALTER TABLE tokens ADD COLUMN last_used INTEGER NOT NULL DEFAULT 0";
const char* kAccessSchema = R"sql(
CREATE INDEX IF NOT EXISTS tokens_by_account ON tokens(account);
CREATE TABLE IF NOT EXISTS account_roles(
  account INTEGER NOT NULL,
  role TEXT NOT NULL,
  PRIMARY KEY(account, role)) WITHOUT ROWID;
)sql";
// When a token was last made or used.
constexpr const char* kTokenLastUse = "MAX(created, last_used)";

const char* kEntryColumns =
    "SELECT e.id, e.parent, e.key, e.name, e.folder, e.size, e.modified, e.deleted, e.delete_op, e.part_count, "
    "CASE WHEN e.folder THEN (SELECT COUNT(*) FROM entries c WHERE c.parent = e.id AND c.deleted = 0 "
    "AND c.key IS NOT NULL) ELSE 0 END, e.change_seq FROM entries e ";

}  // namespace

// One SQLite connection with its prepared statements. Used by one thread at a time.
class SqliteMetadataStore::Connection {
public:
    /// vfs: SQLite's file layer by name, null for its default.
    Connection(const std::filesystem::path& file, const char* vfs) {
        if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                            vfs) != SQLITE_OK) {
            std::string msg = db_ ? sqlite3_errmsg(db_) : "out of memory";
            sqlite3_close(db_);
            throw std::runtime_error("cannot open database " + file.string() + ": " + msg);
        }
        sqlite3_busy_timeout(db_, kBusyTimeoutMs);
        exec("PRAGMA journal_mode=WAL");
        exec("PRAGMA synchronous=FULL");
    }
    ~Connection() {
        for (auto& [sql, stmt] : cache_) sqlite3_finalize(stmt);
        sqlite3_close(db_);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void exec(const char* sql) {
        char* err = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) != SQLITE_OK) {
            std::string msg = err ? err : "unknown error";
            sqlite3_free(err);
            databaseError(db_, msg);
        }
    }

    sqlite3_stmt* prepare(const char* sql) {
        auto it = cache_.find(sql);
        if (it != cache_.end()) return it->second;
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string("database error: ") + sqlite3_errmsg(db_));
        cache_.emplace(sql, stmt);
        return stmt;
    }

    sqlite3* db() const { return db_; }

private:
    sqlite3* db_ = nullptr;
    std::unordered_map<std::string, sqlite3_stmt*> cache_;
};

namespace {

using Connection = SqliteMetadataStore::Connection;

// A prepared statement in use: binds, steps, resets when it goes out of scope.
class Statement {
public:
    Statement(Connection& c, const std::string& sql) : c_(c), stmt_(c.prepare(sql.c_str())) {}
    ~Statement() {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(std::int64_t v) {
        check(sqlite3_bind_int64(stmt_, ++index_, v));
        return *this;
    }
    Statement& bindText(std::string_view v) {
        check(sqlite3_bind_text(stmt_, ++index_, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT));
        return *this;
    }
    Statement& bindBlob(std::string_view v) {
        if (v.empty())
            check(sqlite3_bind_zeroblob(stmt_, ++index_, 0));
        else
            check(sqlite3_bind_blob(stmt_, ++index_, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT));
        return *this;
    }

    /// True while a row is available.
    bool step() {
        int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        if (rc == SQLITE_CONSTRAINT) throw std::logic_error(sqlite3_errmsg(c_.db()));
        databaseError(c_.db(), sqlite3_errmsg(c_.db()));
    }
    void run() {
        while (step()) {
        }
    }

    std::int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }
    std::string text(int col) const {
        const auto* p = sqlite3_column_blob(stmt_, col);
        int n = sqlite3_column_bytes(stmt_, col);
        return p ? std::string(static_cast<const char*>(p), static_cast<std::size_t>(n)) : std::string();
    }
    int changes() const { return sqlite3_changes(c_.db()); }

private:
    void check(int rc) {
        if (rc != SQLITE_OK) throw std::runtime_error(std::string("database error: ") + sqlite3_errmsg(c_.db()));
    }
    Connection& c_;
    sqlite3_stmt* stmt_;
    int index_ = 0;
};

Entry readEntry(const Statement& s) {
    Entry e;
    e.id = s.integer(0);
    e.parent = s.integer(1);
    e.key = s.text(2);
    e.name = s.text(3);
    e.folder = s.integer(4) != 0;
    e.size = static_cast<std::uint64_t>(s.integer(5));
    e.modified = s.integer(6);
    e.deleted = s.integer(7);
    e.deleteOp = s.integer(8);
    e.partCount = static_cast<std::uint64_t>(s.integer(9));
    e.contained = static_cast<std::uint64_t>(s.integer(10));
    e.changeSeq = s.integer(11);
    return e;
}

Account readAccount(const Statement& s) {
    return Account{s.integer(0), s.text(1), s.text(2), s.text(3)};
}

std::optional<Entry> findByKey(Connection& c, AccountId account, std::string_view key) {
    Statement s(c, std::string(kEntryColumns) + "WHERE e.account = ? AND e.key = ?");
    s.bind(account).bindBlob(key);
    if (!s.step()) return std::nullopt;
    return readEntry(s);
}

Entry mustFindByKey(Connection& c, AccountId account, std::string_view key) {
    auto e = findByKey(c, account, key);
    if (!e) throw std::runtime_error("database error: entry vanished inside its transaction");
    return *e;
}

std::string nameOfKey(std::string_view key) {
    auto pos = key.rfind(CloudPath::kSeparator);
    return pos == std::string_view::npos ? std::string() : std::string(key.substr(pos + 1));
}

EntryId insertEntry(Connection& c, AccountId account, EntryId parent, std::string_view key, bool folder,
                    std::uint64_t size, std::int64_t modified, std::uint64_t partCount, std::int64_t seq) {
    Statement s(c,
                "INSERT INTO entries(account, parent, key, name, folder, size, modified, part_count, change_seq) "
                "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)");
    s.bind(account).bind(parent).bindBlob(key).bindText(nameOfKey(key)).bind(folder ? 1 : 0);
    s.bind(static_cast<std::int64_t>(size)).bind(modified).bind(static_cast<std::int64_t>(partCount)).bind(seq);
    s.run();
    return sqlite3_last_insert_rowid(c.db());
}

// The account's next change sequence; every change transaction takes one.
std::int64_t nextSeq(Connection& c, AccountId account) {
    Statement s(c,
                "INSERT INTO counters(name, value) VALUES(?, 1) "
                "ON CONFLICT(name) DO UPDATE SET value = value + 1 RETURNING value");
    s.bindText("changes:" + std::to_string(account));
    if (!s.step()) throw std::runtime_error("database error: no change counter");
    const std::int64_t seq = s.integer(0);
    s.run();
    return seq;
}

// Takes the entry (and, for a folder, everything below it) out of the tree while keeping
// the rows, so that earlier file versions stay reachable by id. The paths are remembered
// as gone (a path that gets a new entry in the same change is reported by that entry).
void retire(Connection& c, AccountId account, const Entry& e, std::int64_t seq) {
    {
        Statement s(c,
                    "INSERT INTO gone(account, key, seq) SELECT account, key, ? FROM entries "
                    "WHERE account = ? AND (key = ? OR (key > ? AND key < ?)) "
                    "ON CONFLICT(account, key) DO UPDATE SET seq = excluded.seq");
        s.bind(seq).bind(account).bindBlob(e.key).bindBlob(e.key).bindBlob(CloudPath::descendantsEnd(e.key));
        s.run();
    }
    {
        Statement s(c, "UPDATE entries SET key = NULL WHERE account = ? AND key > ? AND key < ?");
        s.bind(account).bindBlob(e.key).bindBlob(CloudPath::descendantsEnd(e.key));
        s.run();
    }
    Statement s(c, "UPDATE entries SET key = NULL WHERE id = ?");
    s.bind(e.id).run();
}

void revive(Connection& c, EntryId id, std::int64_t seq) {
    Statement s(c, "UPDATE entries SET deleted = 0, delete_op = 0, change_seq = ? WHERE id = ?");
    s.bind(seq).bind(id).run();
}

// A conditional write goes ahead only when the path holds what the client saw: the live
// entry with id `*ifVersion`, or for 0 no live entry. Otherwise 202 with what is there.
void checkVersion(const std::optional<Entry>& current, const IfVersion& ifVersion, std::string_view key) {
    if (!ifVersion) return;
    const bool live = current && !current->deleted;
    const bool expected = *ifVersion == 0 ? !live : live && current->id == *ifVersion;
    if (expected) return;
    ApiError err(ErrorCode::Conflict, "Conflict detected: " + CloudPath::pathOfKey(key) + " holds " +
                                          (live ? "version " + std::to_string(current->id) : std::string("nothing")) +
                                          ", not version " + std::to_string(*ifVersion));
    if (live) err.current = std::make_shared<const Entry>(*current);
    throw err;
}

// Makes sure every folder from the root down to `lastKey` exists and is live; returns the
// id of the folder at lastKey. A live file on the way: 172.
EntryId ensureFolders(Connection& c, AccountId account, std::string_view lastKey, std::int64_t now, std::int64_t seq) {
    auto root = findByKey(c, account, "");
    if (!root) throw std::runtime_error("database error: the account has no root folder");
    EntryId parent = root->id;
    std::size_t pos = 0;
    while (pos < lastKey.size()) {
        std::size_t next = lastKey.find(CloudPath::kSeparator, pos + 1);
        if (next == std::string_view::npos) next = lastKey.size();
        std::string_view key = lastKey.substr(0, next);
        auto e = findByKey(c, account, key);
        if (e && e->folder) {
            if (e->deleted) revive(c, e->id, seq);
            parent = e->id;
        } else if (e && !e->deleted) {
            throw ApiError(ErrorCode::FileInTheWay,
                           "A file exists where a folder is needed: " + CloudPath::pathOfKey(key));
        } else {
            if (e) retire(c, account, *e, seq);
            parent = insertEntry(c, account, parent, key, true, 0, now, 0, seq);
        }
        pos = next;
    }
    return parent;
}

std::string joinKeys(const std::vector<std::string>& keys) {
    std::string out;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (i) out += '\n';
        out += keys[i];
    }
    return out;
}

std::vector<std::string> splitKeys(const std::string& joined) {
    std::vector<std::string> out;
    std::size_t pos = 0;
    while (true) {
        std::size_t nl = joined.find('\n', pos);
        out.push_back(joined.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos));
        if (nl == std::string::npos) break;
        pos = nl + 1;
    }
    return out;
}

}  // namespace

// ---- connection pool ----

class SqliteMetadataStore::Lease {
public:
    Lease(SqliteMetadataStore& store, std::unique_ptr<Connection> c) : store_(store), c_(std::move(c)) {}
    ~Lease() {
        if (c_) store_.release(std::move(c_));
    }
    Lease(Lease&& other) noexcept : store_(other.store_), c_(std::move(other.c_)) {}
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    Connection& operator*() { return *c_; }

private:
    SqliteMetadataStore& store_;
    std::unique_ptr<Connection> c_;
};

namespace {

// Runs body inside BEGIN IMMEDIATE ... COMMIT; rolls back when body throws.
template <typename Body>
auto writeTransaction(std::mutex& writeMutex, Connection& c, Body&& body) {
    std::lock_guard lock(writeMutex);
    c.exec("BEGIN IMMEDIATE");
    try {
        if constexpr (std::is_void_v<decltype(body())>) {
            body();
            c.exec("COMMIT");
        } else {
            auto result = body();
            c.exec("COMMIT");
            return result;
        }
    } catch (...) {
        try {
            c.exec("ROLLBACK");
        } catch (...) {
        }
        throw;
    }
}

}  // namespace

SqliteMetadataStore::SqliteMetadataStore(std::filesystem::path file, std::size_t maxConnections, Env& env)
    : file_(std::move(file)), maxConnections_(maxConnections ? maxConnections : 1), env_(env),
      vfs_(env.isPosix() ? std::string() : sqliteVfsFor(env)) {
    auto lease = acquire();
    std::lock_guard lock(writeMutex_);
    (*lease).exec("BEGIN IMMEDIATE");
    try {
        (*lease).exec(kSchema);
        bool hasChangeSeq = false;
        {
            Statement s(*lease, "SELECT 1 FROM pragma_table_info('entries') WHERE name = 'change_seq'");
            hasChangeSeq = s.step();
        }
        if (!hasChangeSeq) (*lease).exec(kChangeSeqColumn);
        (*lease).exec(kChangeSeqIndex);
        bool hasHeldSince = false;
        {
            Statement s(*lease, "SELECT 1 FROM pragma_table_info('held_parts') WHERE name = 'since'");
            hasHeldSince = s.step();
        }
        if (!hasHeldSince) (*lease).exec(kHeldSinceColumn);
        bool hasTokenUse = false;
        {
            Statement s(*lease, "SELECT 1 FROM pragma_table_info('tokens') WHERE name = 'last_used'");
            hasTokenUse = s.step();
        }
        if (!hasTokenUse) (*lease).exec(kTokenUseColumn);
        (*lease).exec(kAccessSchema);
        (*lease).exec("COMMIT");
    } catch (...) {
        // A failed COMMIT (a full disk) may have rolled back already: the first error is
        // the one to report.
        try {
            (*lease).exec("ROLLBACK");
        } catch (...) {
        }
        throw;
    }
}

SqliteMetadataStore::~SqliteMetadataStore() = default;

SqliteMetadataStore::Lease SqliteMetadataStore::acquire() {
    std::unique_lock lock(poolMutex_);
    poolReady_.wait(lock, [&] { return !idle_.empty() || openConnections_ < maxConnections_; });
    if (!idle_.empty()) {
        auto c = std::move(idle_.back());
        idle_.pop_back();
        return Lease(*this, std::move(c));
    }
    ++openConnections_;
    lock.unlock();
    try {
        return Lease(*this, std::make_unique<Connection>(file_, vfs_.empty() ? nullptr : vfs_.c_str()));
    } catch (...) {
        std::lock_guard again(poolMutex_);
        --openConnections_;
        poolReady_.notify_one();
        throw;
    }
}

void SqliteMetadataStore::release(std::unique_ptr<Connection> connection) {
    std::lock_guard lock(poolMutex_);
    idle_.push_back(std::move(connection));
    poolReady_.notify_one();
}

// ---- accounts and tokens ----

std::optional<Account> SqliteMetadataStore::accountByName(std::string_view name) {
    auto c = acquire();
    Statement s(*c, "SELECT id, name, password_hash, display_name FROM accounts WHERE name = ?");
    s.bindText(name);
    if (!s.step()) return std::nullopt;
    return readAccount(s);
}

std::optional<Account> SqliteMetadataStore::accountById(AccountId id) {
    auto c = acquire();
    Statement s(*c, "SELECT id, name, password_hash, display_name FROM accounts WHERE id = ?");
    s.bind(id);
    if (!s.step()) return std::nullopt;
    return readAccount(s);
}

std::vector<Account> SqliteMetadataStore::accounts() {
    auto c = acquire();
    Statement s(*c, "SELECT id, name, password_hash, display_name FROM accounts ORDER BY name");
    std::vector<Account> out;
    while (s.step()) out.push_back(readAccount(s));
    return out;
}

AccountId SqliteMetadataStore::createAccount(std::string_view name, std::string_view passwordHash, std::int64_t now) {
    auto c = acquire();
    return writeTransaction(writeMutex_, *c, [&] {
        {
            Statement s(*c, "SELECT 1 FROM accounts WHERE name = ?");
            s.bindText(name);
            if (s.step()) throw ApiError(ErrorCode::BadInput, "The user " + std::string(name) + " already exists");
        }
        {
            Statement s(*c, "INSERT INTO accounts(name, password_hash, display_name, created) VALUES(?, ?, ?, ?)");
            s.bindText(name).bindText(passwordHash).bindText(name).bind(now).run();
        }
        AccountId id = sqlite3_last_insert_rowid((*c).db());
        insertEntry(*c, id, 0, "", true, 0, now, 0, 0);
        return id;
    });
}

void SqliteMetadataStore::addToken(std::string_view tokenHash, AccountId account, std::int64_t now) {
    auto c = acquire();
    writeTransaction(writeMutex_, *c, [&] {
        Statement s(*c, "INSERT INTO tokens(hash, account, created) VALUES(?, ?, ?)");
        s.bindBlob(tokenHash).bind(account).bind(now).run();
    });
}

std::optional<AccountId> SqliteMetadataStore::accountByToken(std::string_view tokenHash) {
    auto c = acquire();
    Statement s(*c, "SELECT account FROM tokens WHERE hash = ?");
    s.bindBlob(tokenHash);
    if (!s.step()) return std::nullopt;
    return s.integer(0);
}

void SqliteMetadataStore::removeToken(std::string_view tokenHash) {
    auto c = acquire();
    writeTransaction(writeMutex_, *c, [&] {
        Statement s(*c, "DELETE FROM tokens WHERE hash = ?");
        s.bindBlob(tokenHash).run();
    });
}

std::optional<AccountId> SqliteMetadataStore::useToken(std::string_view tokenHash, std::int64_t now,
                                                       std::int64_t lifetime, std::int64_t refreshAfter) {
    AccountId account = 0;
    std::int64_t lastUse = 0;
    {
        auto c = acquire();
        Statement s(*c, std::string("SELECT account, ") + kTokenLastUse + " FROM tokens WHERE hash = ?");
        s.bindBlob(tokenHash);
        if (!s.step()) return std::nullopt;
        account = s.integer(0);
        lastUse = s.integer(1);
    }
    const bool expired = now - lastUse >= lifetime;
    // Reads are the common case: a token is written only when it expired or its use
    // time is stale, at most once per refreshAfter seconds.
    if (!expired && now - lastUse <= refreshAfter) return account;
    auto c = acquire();
    writeTransaction(writeMutex_, *c, [&] {
        if (expired) {
            Statement s(*c, "DELETE FROM tokens WHERE hash = ?");
            s.bindBlob(tokenHash).run();
        } else {
            Statement s(*c, "UPDATE tokens SET last_used = ? WHERE hash = ? AND last_used < ?");
            s.bind(now).bindBlob(tokenHash).bind(now).run();
        }
    });
    if (expired) return std::nullopt;
    return account;
}

void SqliteMetadataStore::trimTokens(AccountId account, std::size_t keep, std::string_view newestHash) {
    auto c = acquire();
    writeTransaction(writeMutex_, *c, [&] {
        Statement s(*c, std::string("DELETE FROM tokens WHERE account = ? AND hash NOT IN (SELECT hash FROM tokens "
                                    "WHERE account = ? ORDER BY hash = ? DESC, ") +
                            kTokenLastUse + " DESC, created DESC LIMIT ?)");
        s.bind(account).bind(account).bindBlob(newestHash).bind(static_cast<std::int64_t>(keep)).run();
    });
}

std::size_t SqliteMetadataStore::removeTokensUnusedSince(std::int64_t before) {
    auto c = acquire();
    return writeTransaction(writeMutex_, *c, [&] {
        Statement s(*c, std::string("DELETE FROM tokens WHERE ") + kTokenLastUse + " < ?");
        s.bind(before).run();
        return static_cast<std::size_t>(s.changes());
    });
}

bool SqliteMetadataStore::hasRole(AccountId account, std::string_view role) {
    auto c = acquire();
    Statement s(*c, "SELECT 1 FROM account_roles WHERE account = ? AND role = ?");
    s.bind(account).bindText(role);
    return s.step();
}

void SqliteMetadataStore::setRole(AccountId account, std::string_view role, bool on) {
    auto c = acquire();
    writeTransaction(writeMutex_, *c, [&] {
        Statement s(*c, on ? "INSERT OR IGNORE INTO account_roles(account, role) VALUES(?, ?)"
                           : "DELETE FROM account_roles WHERE account = ? AND role = ?");
        s.bind(account).bindText(role).run();
    });
}

// ---- parts ----

std::optional<std::uint64_t> SqliteMetadataStore::heldPartSize(AccountId account, std::string_view fingerprint) {
    auto c = acquire();
    Statement s(*c, "SELECT size FROM held_parts WHERE account = ? AND fingerprint = ?");
    s.bind(account).bindText(fingerprint);
    if (!s.step()) return std::nullopt;
    return static_cast<std::uint64_t>(s.integer(0));
}

void SqliteMetadataStore::addHeldParts(AccountId account, const std::vector<PartRef>& parts) {
    if (parts.empty()) return;
    auto c = acquire();
    writeTransaction(writeMutex_, *c, [&] {
        for (const auto& p : parts) {
            Statement s(*c, "INSERT OR REPLACE INTO held_parts(account, fingerprint, size) VALUES(?, ?, ?)");
            s.bind(account).bindText(p.fingerprint).bind(static_cast<std::int64_t>(p.size)).run();
        }
    });
}

bool SqliteMetadataStore::accountReferencesPart(AccountId account, std::string_view fingerprint) {
    auto c = acquire();
    Statement s(*c,
                "SELECT 1 FROM file_parts p JOIN entries e ON e.id = p.file "
                "WHERE p.fingerprint = ? AND e.account = ? LIMIT 1");
    s.bindText(fingerprint).bind(account);
    return s.step();
}

bool SqliteMetadataStore::fileReferencesPart(EntryId file, std::string_view fingerprint) {
    auto c = acquire();
    // The fingerprint index holds the file id too (the table's key): a single seek.
    Statement s(*c, "SELECT 1 FROM file_parts WHERE fingerprint = ? AND file = ? LIMIT 1");
    s.bindText(fingerprint).bind(file);
    return s.step();
}

// ---- reading the tree ----

std::optional<Entry> SqliteMetadataStore::entryByKey(AccountId account, std::string_view key) {
    auto c = acquire();
    return findByKey(*c, account, key);
}

std::optional<Entry> SqliteMetadataStore::entryById(AccountId account, EntryId id) {
    auto c = acquire();
    Statement s(*c, std::string(kEntryColumns) + "WHERE e.account = ? AND e.id = ?");
    s.bind(account).bind(id);
    if (!s.step()) return std::nullopt;
    return readEntry(s);
}

std::vector<Entry> SqliteMetadataStore::children(AccountId account, std::string_view folderKey,
                                                 std::string_view afterKey, bool includeDeleted, std::size_t limit) {
    auto c = acquire();
    auto folder = findByKey(*c, account, folderKey);
    std::vector<Entry> out;
    if (!folder || !folder->folder) return out;
    Statement s(*c, std::string(kEntryColumns) + "WHERE e.parent = ? AND e.key > ? " +
                        (includeDeleted ? "" : "AND e.deleted = 0 ") + "ORDER BY e.key LIMIT ?");
    s.bind(folder->id).bindBlob(afterKey > folderKey ? afterKey : folderKey).bind(static_cast<std::int64_t>(limit));
    while (s.step()) out.push_back(readEntry(s));
    return out;
}

std::vector<Entry> SqliteMetadataStore::descendants(AccountId account, std::string_view key,
                                                    std::string_view afterKey, bool includeDeleted,
                                                    std::size_t limit) {
    auto c = acquire();
    Statement s(*c, std::string(kEntryColumns) + "WHERE e.account = ? AND e.key > ? AND e.key < ? " +
                        (includeDeleted ? "" : "AND e.deleted = 0 ") + "ORDER BY e.key LIMIT ?");
    s.bind(account).bindBlob(afterKey > key ? afterKey : key).bindBlob(CloudPath::descendantsEnd(key));
    s.bind(static_cast<std::int64_t>(limit));
    std::vector<Entry> out;
    while (s.step()) out.push_back(readEntry(s));
    return out;
}

std::vector<PartLocation> SqliteMetadataStore::fileParts(EntryId file, std::size_t limit) {
    auto c = acquire();
    Statement s(*c, "SELECT fingerprint, size, offset FROM file_parts WHERE file = ? ORDER BY idx LIMIT ?");
    s.bind(file).bind(limit ? static_cast<std::int64_t>(limit) : -1);
    std::vector<PartLocation> out;
    while (s.step())
        out.push_back({s.text(0), static_cast<std::uint64_t>(s.integer(1)), static_cast<std::uint64_t>(s.integer(2))});
    return out;
}

// ---- changing the tree ----

Entry SqliteMetadataStore::createFile(AccountId account, std::string_view key, const std::vector<PartRef>& parts,
                                      std::int64_t modified, std::int64_t now, IfVersion ifVersion) {
    if (key.empty()) throw ApiError(ErrorCode::IsFolder, "The target path is a folder: /");
    auto c = acquire();
    return writeTransaction(writeMutex_, *c, [&] {
        checkVersion(findByKey(*c, account, key), ifVersion, key);
        std::vector<std::string> missing;
        std::unordered_set<std::string> seen;
        std::uint64_t total = 0;
        for (const auto& p : parts) {
            total += p.size;
            if (!seen.insert(p.fingerprint).second) continue;
            Statement s(*c, "SELECT size FROM held_parts WHERE account = ? AND fingerprint = ?");
            s.bind(account).bindText(p.fingerprint);
            if (!s.step() || static_cast<std::uint64_t>(s.integer(0)) != p.size) missing.push_back(p.fingerprint);
        }
        if (!missing.empty()) {
            ApiError err(ErrorCode::PartsMissing, "Parts are missing: " + std::to_string(missing.size()) +
                                                      " of the file's parts have not been uploaded");
            err.missing = std::move(missing);
            throw err;
        }
        const std::int64_t seq = nextSeq(*c, account);
        EntryId parent = ensureFolders(*c, account, CloudPath::parentKey(key), now, seq);
        if (auto existing = findByKey(*c, account, key)) {
            if (existing->folder && !existing->deleted)
                throw ApiError(ErrorCode::IsFolder, "The target path is a folder: " + CloudPath::pathOfKey(key));
            retire(*c, account, *existing, seq);
        }
        EntryId id = insertEntry(*c, account, parent, key, false, total, modified, parts.size(), seq);
        std::uint64_t offset = 0;
        for (std::size_t i = 0; i < parts.size(); ++i) {
            Statement s(*c, "INSERT INTO file_parts(file, idx, fingerprint, size, offset) VALUES(?, ?, ?, ?, ?)");
            s.bind(id).bind(static_cast<std::int64_t>(i)).bindText(parts[i].fingerprint);
            s.bind(static_cast<std::int64_t>(parts[i].size)).bind(static_cast<std::int64_t>(offset)).run();
            offset += parts[i].size;
        }
        return mustFindByKey(*c, account, key);
    });
}

Entry SqliteMetadataStore::makeFolder(AccountId account, std::string_view key, std::int64_t now) {
    auto c = acquire();
    return writeTransaction(writeMutex_, *c, [&] {
        ensureFolders(*c, account, key, now, nextSeq(*c, account));
        return mustFindByKey(*c, account, key);
    });
}

ChangeResult SqliteMetadataStore::softDelete(AccountId account, std::string_view key, std::int64_t now,
                                             IfVersion ifVersion) {
    if (key.empty()) throw ApiError(ErrorCode::BadInput, "The root folder cannot be deleted");
    auto c = acquire();
    return writeTransaction(writeMutex_, *c, [&] {
        auto e = findByKey(*c, account, key);
        if (!e || e->deleted)
            throw ApiError(ErrorCode::NotFound, "The file specified does not exist: " + CloudPath::pathOfKey(key));
        checkVersion(e, ifVersion, key);
        std::int64_t op;
        {
            Statement s(*c,
                        "INSERT INTO counters(name, value) VALUES('delete_op', 1) "
                        "ON CONFLICT(name) DO UPDATE SET value = value + 1 RETURNING value");
            if (!s.step()) throw std::runtime_error("database error: no delete counter");
            op = s.integer(0);
            s.run();
        }
        Statement s(*c,
                    "UPDATE entries SET deleted = ?, delete_op = ?, change_seq = ? WHERE account = ? AND deleted = 0 "
                    "AND (key = ? OR (key > ? AND key < ?))");
        s.bind(now).bind(op).bind(nextSeq(*c, account)).bind(account).bindBlob(key).bindBlob(key).bindBlob(CloudPath::descendantsEnd(key));
        s.run();
        ChangeResult r;
        r.count = static_cast<std::uint64_t>(s.changes());
        r.entry = mustFindByKey(*c, account, key);
        return r;
    });
}

ChangeResult SqliteMetadataStore::undelete(AccountId account, std::string_view key, std::uint64_t selector) {
    auto c = acquire();
    return writeTransaction(writeMutex_, *c, [&] {
        auto e = findByKey(*c, account, key);
        if (!e || !e->deleted || (selector != kLatestDeleted && selector != static_cast<std::uint64_t>(e->deleted)))
            throw ApiError(ErrorCode::NotFound,
                           "The file specified does not exist: no such deleted entry at " + CloudPath::pathOfKey(key));
        ChangeResult r;
        const std::int64_t seq = nextSeq(*c, account);
        {
            Statement s(*c,
                        "UPDATE entries SET deleted = 0, delete_op = 0, change_seq = ? WHERE account = ? "
                        "AND delete_op = ? AND (key = ? OR (key > ? AND key < ?))");
            s.bind(seq).bind(account).bind(e->deleteOp).bindBlob(key).bindBlob(key).bindBlob(CloudPath::descendantsEnd(key));
            s.run();
            r.count = static_cast<std::uint64_t>(s.changes());
        }
        for (std::string parent = CloudPath::parentKey(key);; parent = CloudPath::parentKey(parent)) {
            Statement s(*c,
                        "UPDATE entries SET deleted = 0, delete_op = 0, change_seq = ? WHERE account = ? AND key = ? "
                        "AND deleted <> 0");
            s.bind(seq).bind(account).bindBlob(parent).run();
            r.count += static_cast<std::uint64_t>(s.changes());
            if (parent.empty()) break;
        }
        r.entry = mustFindByKey(*c, account, key);
        return r;
    });
}

// ---- the change feed ----

std::int64_t SqliteMetadataStore::changeSeq(AccountId account) {
    auto c = acquire();
    Statement s(*c, "SELECT value FROM counters WHERE name = ?");
    s.bindText("changes:" + std::to_string(account));
    return s.step() ? s.integer(0) : 0;
}

TreeChangePage SqliteMetadataStore::changesSince(AccountId account, std::int64_t afterSeq,
                                                 std::optional<std::string_view> afterKey,
                                                 std::size_t limit) {
    auto c = acquire();
    // One read snapshot: the listed states and their sequences belong together.
    (*c).exec("BEGIN");
    try {
        TreeChangePage page;
        {
            Statement s(*c, "SELECT value FROM counters WHERE name = ?");
            s.bindText("changes:" + std::to_string(account));
            page.headSeq = s.step() ? s.integer(0) : 0;
        }
        {
            Statement s(*c,
                        "SELECT seq, key, gone FROM ("
                        "SELECT change_seq AS seq, key, 0 AS gone FROM entries WHERE account = ? "
                        "AND key IS NOT NULL AND key <> x'' AND (change_seq > ? OR (change_seq = ? AND ? AND key > ?)) "
                        "UNION ALL "
                        "SELECT g.seq, g.key, 1 FROM gone g WHERE g.account = ? "
                        "AND (g.seq > ? OR (g.seq = ? AND ? AND g.key > ?)) "
                        "AND NOT EXISTS (SELECT 1 FROM entries e WHERE e.account = g.account AND e.key = g.key)) "
                        "ORDER BY seq, key LIMIT ?");
            for (int i = 0; i < 2; ++i)
                s.bind(account).bind(afterSeq).bind(afterSeq).bind(afterKey ? 1 : 0).bindBlob(afterKey.value_or(""));
            s.bind(static_cast<std::int64_t>(limit + 1));
            while (s.step()) {
                if (page.changes.size() == limit) {
                    page.more = true;
                    break;
                }
                TreeChange change;
                change.seq = s.integer(0);
                change.entry.key = s.text(1);
                change.gone = s.integer(2) != 0;
                page.changes.push_back(std::move(change));
            }
        }
        for (TreeChange& change : page.changes) {
            if (change.gone) continue;
            change.entry = mustFindByKey(*c, account, change.entry.key);
        }
        (*c).exec("COMMIT");
        return page;
    } catch (...) {
        try {
            (*c).exec("ROLLBACK");
        } catch (...) {
        }
        throw;
    }
}

// ---- links and settings ----

void SqliteMetadataStore::addLink(std::string_view tokenHash, AccountId account, const std::vector<std::string>& keys,
                                  std::int64_t now) {
    auto c = acquire();
    writeTransaction(writeMutex_, *c, [&] {
        Statement s(*c, "INSERT INTO links(hash, account, keys, created) VALUES(?, ?, ?, ?)");
        s.bindBlob(tokenHash).bind(account).bindBlob(joinKeys(keys)).bind(now).run();
    });
}

std::optional<Link> SqliteMetadataStore::linkByToken(std::string_view tokenHash) {
    auto c = acquire();
    Statement s(*c, "SELECT account, keys FROM links WHERE hash = ?");
    s.bindBlob(tokenHash);
    if (!s.step()) return std::nullopt;
    return Link{s.integer(0), splitKeys(s.text(1))};
}

std::optional<std::string> SqliteMetadataStore::setting(std::string_view name) {
    auto c = acquire();
    Statement s(*c, "SELECT value FROM settings WHERE name = ?");
    s.bindText(name);
    if (!s.step()) return std::nullopt;
    return s.text(0);
}

void SqliteMetadataStore::updateSetting(std::string_view name,
                                        const std::function<std::string(const std::optional<std::string>&)>& update) {
    auto c = acquire();
    writeTransaction(writeMutex_, *c, [&] {
        std::optional<std::string> current;
        {
            Statement s(*c, "SELECT value FROM settings WHERE name = ?");
            s.bindText(name);
            if (s.step()) current = s.text(0);
        }
        std::string next = update(current);
        Statement s(*c, "INSERT OR REPLACE INTO settings(name, value) VALUES(?, ?)");
        s.bindText(name).bindText(next).run();
    });
}

}  // namespace zarnu::cloud

namespace zarnu::cloud {

// ---- storage accounting ----

std::optional<std::uint64_t> SqliteMetadataStore::quota(AccountId account) {
    auto c = acquire();
    Statement s(*c, "SELECT bytes FROM quotas WHERE account = ?");
    s.bind(account);
    if (!s.step()) return std::nullopt;
    return static_cast<std::uint64_t>(s.integer(0));
}

void SqliteMetadataStore::setQuota(AccountId account, std::optional<std::uint64_t> bytes) {
    auto c = acquire();
    writeTransaction(writeMutex_, *c, [&] {
        if (bytes) {
            Statement s(*c, "INSERT OR REPLACE INTO quotas(account, bytes) VALUES(?, ?)");
            s.bind(account).bind(static_cast<std::int64_t>(*bytes)).run();
        } else {
            Statement s(*c, "DELETE FROM quotas WHERE account = ?");
            s.bind(account).run();
        }
    });
}

namespace {

std::uint64_t heldBytesIn(Connection& c, AccountId account) {
    Statement s(c, "SELECT COALESCE(SUM(size), 0) FROM held_parts WHERE account = ?");
    s.bind(account);
    return s.step() ? static_cast<std::uint64_t>(s.integer(0)) : 0;
}

}  // namespace

std::uint64_t SqliteMetadataStore::heldBytes(AccountId account) {
    auto c = acquire();
    return heldBytesIn(*c, account);
}

void SqliteMetadataStore::holdParts(AccountId account, const std::vector<PartRef>& parts, std::int64_t now) {
    if (parts.empty()) return;
    auto c = acquire();
    writeTransaction(writeMutex_, *c, [&] {
        std::optional<std::uint64_t> limit;
        {
            Statement s(*c, "SELECT bytes FROM quotas WHERE account = ?");
            s.bind(account);
            if (s.step()) limit = static_cast<std::uint64_t>(s.integer(0));
        }
        const std::uint64_t before = limit ? heldBytesIn(*c, account) : 0;
        for (const auto& p : parts) {
            Statement s(*c, "INSERT OR REPLACE INTO held_parts(account, fingerprint, size, since) VALUES(?, ?, ?, ?)");
            s.bind(account).bindText(p.fingerprint).bind(static_cast<std::int64_t>(p.size)).bind(now).run();
        }
        if (limit) {
            const std::uint64_t used = heldBytesIn(*c, account);
            // Parts the account already held never count against it again.
            if (used > before && used > *limit)
                throw ApiError(ErrorCode::QuotaExceeded, "The account's storage quota is exceeded: these parts need " +
                                                             std::to_string(used) + " bytes, the quota is " +
                                                             std::to_string(*limit) + " bytes");
        }
    });
}

std::uint64_t SqliteMetadataStore::partHolders(std::string_view fingerprint) {
    auto c = acquire();
    Statement s(*c, "SELECT COUNT(*) FROM held_parts WHERE fingerprint = ?");
    s.bindText(fingerprint);
    return s.step() ? static_cast<std::uint64_t>(s.integer(0)) : 0;
}

std::uint64_t SqliteMetadataStore::releaseUnusedParts(std::int64_t heldBefore) {
    auto c = acquire();
    return writeTransaction(writeMutex_, *c, [&] {
        Statement s(*c,
                    "DELETE FROM held_parts WHERE since < ? AND NOT EXISTS ("
                    "SELECT 1 FROM file_parts p JOIN entries e ON e.id = p.file "
                    "WHERE p.fingerprint = held_parts.fingerprint AND e.account = held_parts.account)");
        s.bind(heldBefore).run();
        return static_cast<std::uint64_t>(s.changes());
    });
}

}  // namespace zarnu::cloud
