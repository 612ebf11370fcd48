// CloudSync::YConfigDb: the agent's configuration database ("config.db").
//
// Options are named text values. The database knows no list of names and no
// defaults; callers pass the default to GetOption. Several processes (the
// agent and any number of zarnucmd runs) use one file at once: every write is
// its own transaction and no write is lost; readers never see a torn value.
// A missing file reads as all defaults and is created (with its folder) on
// the first write. A damaged or unreadable file is an error naming the file.
// Thread-safety: one thread at a time per object.
#pragma once

#include <memory>

#include "Qel/SQLite/YSqliteDb.h"
#include "Qel/YString.h"

namespace CloudSync {

class YConfigDb : public Qel::SQLite::YSqliteDb {
 public:
  explicit YConfigDb(const Qel::YString& path);

  Qel::YString GetOption(const Qel::YString& name, const Qel::YString& defaultValue) const;
  void PutOption(const Qel::YString& name, const Qel::YString& value);
  // Stores "1" or "0".
  void SetOptionEnabled(const Qel::YString& name, bool enabled);

  // The agent's login: token, user name, local root folder, cloud address.
  // Empty texts when none is stored.
  Qel::YString GetAuthToken() const;
  Qel::YString GetAuthUser() const;
  Qel::YString GetRootFolder() const;
  void PutLogin(const Qel::YString& token, const Qel::YString& user, const Qel::YString& root,
                const Qel::YString& cloudAddress);
};

// The token the agent stored. Raises code 177 ("The user is not logged in")
// with the database path as info when there is none.
Qel::YString GetAuthToken(YConfigDb& db);

}  // namespace CloudSync
