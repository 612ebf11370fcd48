#include "Qel/SQLite/YSqliteDb.h"

#include <sqlite3.h>

#include <chrono>
#include <thread>
#include <utility>

#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"

namespace Qel::SQLite {

namespace {

constexpr const char* kFile = "libqel/Qel/SQLite/YSqliteDb";
constexpr unsigned int kGeneralCode = 1;
constexpr unsigned int kBusyCode = 145;

bool IsBusy(int rc) {
  const int primary = rc & 0xff;
  return primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
}

// Pause before the next attempt on a busy database: 20 ms, 40 ms, ...
void BackOff(int attempt) { std::this_thread::sleep_for(std::chrono::milliseconds(20 * (attempt + 1))); }

}  // namespace

// ---------------------------------------------------------------------------
// YStatement

YStatement::YStatement(YStatement&& other) noexcept
    : db_(std::exchange(other.db_, nullptr)), stmt_(std::exchange(other.stmt_, nullptr)) {}

YStatement& YStatement::operator=(YStatement&& other) noexcept {
  if (this != &other) {
    if (stmt_ != nullptr) sqlite3_finalize(stmt_);
    db_ = std::exchange(other.db_, nullptr);
    stmt_ = std::exchange(other.stmt_, nullptr);
  }
  return *this;
}

YStatement::~YStatement() {
  if (stmt_ != nullptr) sqlite3_finalize(stmt_);
}

void YStatement::CheckBind(int rc, int index) const {
  if (rc != SQLITE_OK) db_->RaiseError(rc, "Bind");
}

YStatement& YStatement::Bind(int index, const YString& text) {
  CheckBind(sqlite3_bind_text64(stmt_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8), index);
  return *this;
}

YStatement& YStatement::Bind(int index, int64_t number) {
  CheckBind(sqlite3_bind_int64(stmt_, index, static_cast<sqlite3_int64>(number)), index);
  return *this;
}

YStatement& YStatement::BindNull(int index) {
  CheckBind(sqlite3_bind_null(stmt_, index), index);
  return *this;
}

bool YStatement::Step() {
  for (int attempt = 0;; ++attempt) {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    // A statement outside a transaction can simply run again; inside one the
    // caller's transaction decides.
    if (IsBusy(rc) && attempt + 1 < kBusyRetries && !db_->IsInTransaction()) {
      sqlite3_reset(stmt_);
      BackOff(attempt);
      continue;
    }
    db_->RaiseError(rc, "Step");
  }
}

void YStatement::Execute() {
  while (Step()) {
  }
}

void YStatement::Reset() { sqlite3_reset(stmt_); }

bool YStatement::IsNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }

YString YStatement::GetText(int column) const {
  const unsigned char* text = sqlite3_column_text(stmt_, column);
  const int size = sqlite3_column_bytes(stmt_, column);
  if (text == nullptr) return YString();
  return YString(reinterpret_cast<const char*>(text), static_cast<size_t>(size));
}

int64_t YStatement::GetInt64(int column) const { return static_cast<int64_t>(sqlite3_column_int64(stmt_, column)); }

// ---------------------------------------------------------------------------
// YSqliteDb

YSqliteDb::YSqliteDb(const YString& path) : path_(path) {}

YSqliteDb::~YSqliteDb() { Close(); }

void YSqliteDb::Initialize() {
  if (initialized_) return;
  const int rc = sqlite3_initialize();
  if (rc != SQLITE_OK) {
    QEL_RAISE(kLogType, kGeneralCode, path_ + ": " + sqlite3_errstr(rc), kFile, "Initialize");
  }
  if (path_.empty()) QEL_RAISE(kLogType, kGeneralCode, "no database path given", kFile, "Initialize");
  initialized_ = true;
}

void YSqliteDb::RequireInitialized(const char* function) const {
  if (!initialized_) QEL_RAISE(kLogType, kGeneralCode, path_ + ": the database is not initialised", kFile, function);
}

void YSqliteDb::RaiseError(int rc, const char* function) const {
  YString message;
  if (db_ != nullptr && (sqlite3_errcode(db_) & 0xff) == (rc & 0xff)) {
    message = sqlite3_errmsg(db_);
  } else {
    message = sqlite3_errstr(rc);
  }
  QEL_RAISE(kLogType, IsBusy(rc) ? kBusyCode : kGeneralCode, path_ + ": " + message, kFile, function);
}

void YSqliteDb::Open(bool create) const {
  if (db_ != nullptr) return;
  const int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0) | SQLITE_OPEN_NOMUTEX;
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(path_.c_str(), &db, flags, nullptr);
  if (rc != SQLITE_OK) {
    const YString message = db != nullptr ? YString(sqlite3_errmsg(db)) : YString(sqlite3_errstr(rc));
    sqlite3_close_v2(db);
    QEL_RAISE(kLogType, IsBusy(rc) ? kBusyCode : kGeneralCode, path_ + ": " + message, kFile, "Open");
  }
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  db_ = db;
}

bool YSqliteDb::OpenForRead() const {
  RequireInitialized("OpenForRead");
  if (db_ != nullptr) return true;
  if (!File::DoesFileExist(path_)) return false;
  Open(false);
  return true;
}

void YSqliteDb::OpenForWrite() {
  RequireInitialized("OpenForWrite");
  if (db_ == nullptr) {
    File::CreatePath(path_, false);
    Open(true);
  }
  EnableWal();
}

void YSqliteDb::EnableWal() {
  // The journal mode is stored in the file, so this normally finds WAL on.
  // Switching needs a moment when no other connection is writing.
  if (wal_checked_) return;
  {
    YStatement query = Prepare("PRAGMA journal_mode");
    if (query.Step() && query.GetText(0).EqualsIgnoreCaseAscii("wal")) {
      wal_checked_ = true;
      return;
    }
  }
  for (int attempt = 0;; ++attempt) {
    const int rc = sqlite3_exec(db_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) {
      wal_checked_ = true;
      return;
    }
    if (IsBusy(rc) && attempt + 1 < kBusyRetries) {
      BackOff(attempt);
      continue;
    }
    RaiseError(rc, "EnableWal");
  }
}

void YSqliteDb::Close() {
  if (db_ != nullptr) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }
  wal_checked_ = false;
}

YStatement YSqliteDb::Prepare(const YString& sql) const {
  RequireInitialized("Prepare");
  if (db_ == nullptr) QEL_RAISE(kLogType, kGeneralCode, path_ + ": the database is not open", kFile, "Prepare");
  for (int attempt = 0;; ++attempt) {
    sqlite3_stmt* stmt = nullptr;
    const int rc = sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &stmt, nullptr);
    if (rc == SQLITE_OK) return YStatement(this, stmt);
    sqlite3_finalize(stmt);
    if (IsBusy(rc) && attempt + 1 < kBusyRetries && !IsInTransaction()) {
      BackOff(attempt);
      continue;
    }
    RaiseError(rc, "Prepare");
  }
}

void YSqliteDb::Execute(const YString& sql) const {
  RequireInitialized("Execute");
  if (db_ == nullptr) QEL_RAISE(kLogType, kGeneralCode, path_ + ": the database is not open", kFile, "Execute");
  const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) RaiseError(rc, "Execute");
}

bool YSqliteDb::HasTable(const YString& name) const {
  YStatement query = Prepare("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?1");
  query.Bind(1, name);
  return query.Step();
}

bool YSqliteDb::IsInTransaction() const { return db_ != nullptr && sqlite3_get_autocommit(db_) == 0; }

void YSqliteDb::BeginImmediate() {
  for (int attempt = 0;; ++attempt) {
    const int rc = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) return;
    if (IsBusy(rc) && attempt + 1 < kBusyRetries) {
      BackOff(attempt);
      continue;
    }
    RaiseError(rc, "BeginImmediate");
  }
}

void YSqliteDb::RunInTransaction(const std::function<void()>& work) {
  YTransaction transaction(*this);
  work();
  transaction.Commit();
}

// ---------------------------------------------------------------------------
// YTransaction

YTransaction::YTransaction(YSqliteDb& db) : db_(db) {
  db_.OpenForWrite();
  nested_ = db_.IsInTransaction();
  if (nested_) {
    // The outer transaction already holds the write lock.
    db_.Execute("SAVEPOINT qel_nested");
  } else {
    db_.BeginImmediate();
  }
}

YTransaction::~YTransaction() {
  if (done_ || !db_.IsInTransaction()) return;
  if (nested_) {
    sqlite3_exec(db_.db_, "ROLLBACK TO qel_nested; RELEASE qel_nested", nullptr, nullptr, nullptr);
  } else {
    sqlite3_exec(db_.db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
}

void YTransaction::Commit() {
  const int rc = sqlite3_exec(db_.db_, nested_ ? "RELEASE qel_nested" : "COMMIT", nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) db_.RaiseError(rc, "Commit");
  done_ = true;
}

}  // namespace Qel::SQLite
