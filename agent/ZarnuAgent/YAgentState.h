// Agent::YAgentState: everything the running agent knows, shared by its
// request handlers: the data folder, the link (user, token, root folder), the
// settings, the path statuses, the enabled log types and its counters.
//
// config.db is reached through one YConfigDb guarded by the state's mutex
// (the database object serves one thread at a time). The link texts have a
// lock of their own, so a reader of them (a peer's question, a request)
// never waits on the database. Thread-safety: every operation may be called
// from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "CloudSync/YConfigDb.h"
#include "Qel/YString.h"
#include "YAgentSettings.h"
#include "YPathStatusTable.h"

namespace Agent {

class YAgentState {
 public:
  explicit YAgentState(const Qel::YString& dataFolder);

  const Qel::YString& GetDataFolder() const { return data_folder_; }
  // `file` joined to the data folder.
  Qel::YString GetPath(const Qel::YString& file) const;

  Qel::YString GetOption(const Qel::YString& name, const Qel::YString& fallback) const;
  void PutOption(const Qel::YString& name, const Qel::YString& value);

  // Re-reads user, token and root folder from config.db and the settings.
  void Reload();
  // Re-reads user, token and root folder only (a "-link" run beside the
  // agent writes them); the in-memory settings stay as they are.
  void ReloadLink();
  // The linked root folder, never with a trailing "/"; "" when not linked.
  Qel::YString GetRootFolder() const;
  Qel::YString GetUser() const;
  Qel::YString GetToken() const;

  YAgentSettings& GetSettings() { return settings_; }
  YPathStatusTable& GetPathStatuses() { return path_statuses_; }

  // Log types: RestoreLogTypes switches on the types kept in config.db;
  // SetLogTypes switches the named ones on or off and keeps the new set.
  // Unknown names raise code 55 naming them, and nothing changes.
  void RestoreLogTypes();
  void SetLogTypes(const std::vector<Qel::YString>& names, bool enabled);

  // Resync requests reach the sync engine through this handler (none: they
  // are only logged).
  void SetResyncHandler(std::function<void(bool fromScratch)> handler);
  void RequestResync(bool fromScratch);

  std::chrono::seconds GetUptime() const;
  // The number of connected clients, as the agent counts them (0 when no
  // counter was given).
  void SetOpenSessionCounter(std::function<uint64_t()> counter);
  uint64_t CountOpenSessions() const;
  std::atomic<uint64_t> sessionsServed{0};
  std::atomic<uint64_t> requestsHandled{0};

 private:
  Qel::YString data_folder_;
  std::chrono::steady_clock::time_point started_;
  // Loads user, token and root folder from db_. REQUIRES: mutex_ held.
  void LoadLinkLocked();

  mutable std::mutex mutex_;  // guards db_; taken before link_mutex_ when both are
  std::unique_ptr<CloudSync::YConfigDb> db_;
  mutable std::mutex link_mutex_;  // guards the three link texts
  Qel::YString user_;
  Qel::YString token_;
  Qel::YString root_;
  YAgentSettings settings_;
  YPathStatusTable path_statuses_;
  std::function<uint64_t()> open_sessions_;  // guarded by mutex_
  std::function<void(bool)> resync_;          // guarded by mutex_
};

}  // namespace Agent
