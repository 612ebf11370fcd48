// Agent::YAgent: the running agent for one data folder.
//
// Run() takes the data folder's lock (a second agent gets code 197), opens
// agent.log, serves the overlay socket (mode 0600, peers of other users
// refused) and, when asked, a TCP listener whose sessions must first prove
// the account's token, prints "listening on <socket>" (and a second line
// "listening on HOST:PORT" for the TCP listener) and waits for SIGTERM,
// SIGINT or SIGHUP. The sync engine runs beside it from the start (it waits
// for a link by itself), and so does peer discovery: the agent answers
// engines that ask who is there and announces itself (docs/peer-discovery.md). On a stop signal it closes the listeners and sessions, removes the
// socket and returns 0.
//
// REQUIRES: the stop signals are blocked in every thread (main() blocks them
// before anything starts a thread), so that Run receives them with sigwait.
#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "CloudSync/Peer/YPeerRegistrar.h"
#include "Qel/IO/YIo.h"
#include "Qel/IO/YService.h"
#include "Qel/IO/YSession.h"
#include "Qel/YString.h"
#include "YAgentState.h"
#include "Sync/YSyncEngine.h"
#include "YOverlayDispatcher.h"

namespace Agent {

class YAgent {
 public:
  // `tcpAddress` empty: no TCP listener.
  YAgent(const Qel::YString& dataFolder, const Qel::YString& tcpAddress);
  ~YAgent();

  int Run();

 private:
  void TakeLock();
  void StartPeerDiscovery();
  void OnAccept(std::shared_ptr<Qel::IO::YIoBase> io, bool remote);
  uint64_t CountOpenSessions();
  // Drops ended sessions (and their path subscriptions). REQUIRES: sessions_mutex_ held.
  uint64_t PruneSessionsLocked();
  // Sends the changed statuses to the client that subscribed to them.
  void PushStatuses(uint64_t clientId, const YPathStatusTable::Changes& changes);

  Qel::YString data_folder_;
  Qel::YString tcp_address_;
  int lock_fd_ = -1;
  std::unique_ptr<YAgentState> state_;
  std::unique_ptr<YOverlayDispatcher> dispatcher_;
  Qel::IO::YService service_;
  std::shared_ptr<Qel::IO::YListener> unix_listener_;
  std::shared_ptr<Qel::IO::YListener> tcp_listener_;
  std::unique_ptr<Sync::YSyncEngine> engine_;
  std::unique_ptr<CloudSync::YPeerRegistrar> peers_;  // answers and announces while the agent runs
  std::mutex sessions_mutex_;
  uint64_t next_client_id_ = 0;                                      // guarded by sessions_mutex_
  std::map<uint64_t, std::weak_ptr<Qel::IO::YSession>> sessions_;  // guarded by sessions_mutex_
};

}  // namespace Agent
