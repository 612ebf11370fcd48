#include "CloudSync/YConfigDb.h"

#include "Qel/Exception/YError.h"

namespace CloudSync {

namespace {

constexpr const char* kFile = "CloudSync/YConfigDb";

// The agent's login is kept under internal names that no command-line option
// uses, except the cloud address, which is also an ordinary option.
constexpr const char* kAuthTokenKey = "csmAuthToken";
constexpr const char* kAuthUserKey = "csmAuthUser";
constexpr const char* kRootFolderKey = "csmRootFolder";
constexpr const char* kCloudAddressKey = "csmCloudAddress";

constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS options(name TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL)";
constexpr const char* kUpsert =
    "INSERT INTO options(name, value) VALUES(?1, ?2) ON CONFLICT(name) DO UPDATE SET value = excluded.value";

// Writes one name and value inside the caller's transaction.
void Store(const Qel::SQLite::YSqliteDb& db, const Qel::YString& name, const Qel::YString& value) {
  Qel::SQLite::YStatement upsert = db.Prepare(kUpsert);
  upsert.Bind(1, name).Bind(2, value);
  upsert.Execute();
}

}  // namespace

YConfigDb::YConfigDb(const Qel::YString& path) : Qel::SQLite::YSqliteDb(path) {}

Qel::YString YConfigDb::GetOption(const Qel::YString& name, const Qel::YString& defaultValue) const {
  // A missing file, or one that no writer has given the table yet, holds no
  // values: everything reads as its default.
  if (!OpenForRead() || !HasTable("options")) return defaultValue;
  Qel::SQLite::YStatement query = Prepare("SELECT value FROM options WHERE name = ?1");
  query.Bind(1, name);
  if (!query.Step()) return defaultValue;
  return query.GetText(0);
}

void YConfigDb::PutOption(const Qel::YString& name, const Qel::YString& value) {
  RunInTransaction([&] {
    Execute(kCreateTable);
    Store(*this, name, value);
  });
}

void YConfigDb::SetOptionEnabled(const Qel::YString& name, bool enabled) { PutOption(name, enabled ? "1" : "0"); }

Qel::YString YConfigDb::GetAuthToken() const { return GetOption(kAuthTokenKey, ""); }

Qel::YString YConfigDb::GetAuthUser() const { return GetOption(kAuthUserKey, ""); }

Qel::YString YConfigDb::GetRootFolder() const { return GetOption(kRootFolderKey, ""); }

void YConfigDb::PutLogin(const Qel::YString& token, const Qel::YString& user, const Qel::YString& root,
                         const Qel::YString& cloudAddress) {
  // One transaction, so that no reader sees the token of one login with the
  // user of another.
  RunInTransaction([&] {
    Execute(kCreateTable);
    Store(*this, kAuthTokenKey, token);
    Store(*this, kAuthUserKey, user);
    Store(*this, kRootFolderKey, root);
    Store(*this, kCloudAddressKey, cloudAddress);
  });
}

Qel::YString GetAuthToken(YConfigDb& db) {
  Qel::YString token = db.GetAuthToken();
  if (token.empty()) QEL_RAISE(200, 177, db.GetPath(), kFile, "GetAuthToken");
  return token;
}

}  // namespace CloudSync
