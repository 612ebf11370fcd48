// Qel::SQLite::YSqliteDb: one connection to an SQLite database file.
//
// The connection is made lazily. Reading never creates anything: OpenForRead
// returns false while the file does not exist, so callers can answer with
// their defaults. The first write transaction creates the file's folder and
// the file, and switches the database to write-ahead logging (WAL), so that
// readers in other processes never wait for a writer and never see half a
// transaction. Write transactions begin with BEGIN IMMEDIATE: the write lock
// is taken up front, waiting up to kBusyTimeoutMs for another process, and the
// begin is retried kBusyRetries times before it fails.
//
// Failures raise YError under log type kLogType with the file's path and
// SQLite's message as info ("<path>: <message>"): code 145 when the database
// stayed locked, else code 1. A damaged file or one that is not a database
// fails on first use with SQLite's text ("file is not a database", "database
// disk image is malformed") naming the file; nothing crashes.
//
// Initialize() must be called before first use. Thread-safety: one thread at
// a time per object; every process (and every thread) needs its own object.
// An object must not be used across fork() once it has opened its
// connection.
#pragma once

#include <cstdint>
#include <functional>

#include "Qel/YString.h"

struct sqlite3;
struct sqlite3_stmt;

namespace Qel::SQLite {

inline constexpr unsigned int kLogType = 43;
inline constexpr int kBusyTimeoutMs = 10000;
inline constexpr int kBusyRetries = 3;

class YSqliteDb;

// A prepared statement. Parameters are numbered from 1, columns from 0.
// Move-only; finalised on destruction.
class YStatement {
 public:
  YStatement(YStatement&& other) noexcept;
  YStatement& operator=(YStatement&& other) noexcept;
  YStatement(const YStatement&) = delete;
  YStatement& operator=(const YStatement&) = delete;
  ~YStatement();

  YStatement& Bind(int index, const YString& text);
  YStatement& Bind(int index, int64_t number);
  YStatement& BindNull(int index);

  // Advances to the next row: true when a row is ready, false when done.
  // Outside a transaction a busy database is retried kBusyRetries times.
  bool Step();
  // Steps until done (for statements that return no rows).
  void Execute();
  // Makes the statement ready to run again; bindings are kept.
  void Reset();

  bool IsNull(int column) const;
  YString GetText(int column) const;
  int64_t GetInt64(int column) const;

 private:
  friend class YSqliteDb;
  YStatement(const YSqliteDb* db, sqlite3_stmt* stmt) : db_(db), stmt_(stmt) {}
  void CheckBind(int rc, int index) const;

  const YSqliteDb* db_ = nullptr;
  sqlite3_stmt* stmt_ = nullptr;
};

class YSqliteDb {
 public:
  explicit YSqliteDb(const YString& path);
  virtual ~YSqliteDb();
  YSqliteDb(const YSqliteDb&) = delete;
  YSqliteDb& operator=(const YSqliteDb&) = delete;

  // Prepares the object for use (the file is not touched). Calling it again
  // does nothing.
  void Initialize();
  bool IsInitialized() const { return initialized_; }
  const YString& GetPath() const { return path_; }

  // Opens the connection for reading. Returns false, creating nothing, when
  // the file does not exist.
  bool OpenForRead() const;
  // Opens the connection for writing, creating the folder and the file when
  // missing, and turns on WAL.
  void OpenForWrite();
  bool IsOpen() const { return db_ != nullptr; }
  void Close();

  // Compiles `sql` on the open connection.
  YStatement Prepare(const YString& sql) const;
  // Runs one or more statements that return no rows.
  void Execute(const YString& sql) const;
  // True when the open database holds a table named `name`.
  bool HasTable(const YString& name) const;
  bool IsInTransaction() const;

  // Runs `work` in a write transaction (see YTransaction): committed when
  // `work` returns, rolled back when it throws.
  void RunInTransaction(const std::function<void()>& work);

  // Raises the connection's current error for the result code `rc`.
  [[noreturn]] void RaiseError(int rc, const char* function) const;

 private:
  friend class YTransaction;
  void RequireInitialized(const char* function) const;
  void Open(bool create) const;
  void EnableWal();
  void BeginImmediate();

  YString path_;
  bool initialized_ = false;
  mutable sqlite3* db_ = nullptr;
  bool wal_checked_ = false;
};

// A write transaction: BEGIN IMMEDIATE on construction (opening the database
// for writing first), COMMIT with Commit(), ROLLBACK on destruction when not
// committed. Made while another transaction is open, it is a savepoint
// within that one: Commit releases it and destruction undoes only its own
// changes.
class YTransaction {
 public:
  explicit YTransaction(YSqliteDb& db);
  ~YTransaction();
  YTransaction(const YTransaction&) = delete;
  YTransaction& operator=(const YTransaction&) = delete;

  void Commit();

 private:
  YSqliteDb& db_;
  bool nested_ = false;
  bool done_ = false;
};

}  // namespace Qel::SQLite
