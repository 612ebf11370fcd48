// Agent::YAgent: the running agent for one data folder.
//
// Run() takes the data folder's lock (a second agent gets code 197), opens
// agent.log, serves the overlay socket (mode 0600, peers of other users
// refused) and, when asked, a TCP listener whose sessions must first prove
// the account's token, prints "listening on <socket>" (and a second line
// "listening on HOST:PORT" for the TCP listener) and waits for SIGTERM,
// SIGINT or SIGHUP. It then closes the listeners and sessions, removes the
// socket and returns 0.
//
// REQUIRES: the stop signals are blocked in every thread (main() blocks them
// before anything starts a thread), so that Run receives them with sigwait.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "Qel/IO/YIo.h"
#include "Qel/IO/YService.h"
#include "Qel/IO/YSession.h"
#include "Qel/YString.h"
#include "YAgentState.h"
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
  void OnAccept(std::shared_ptr<Qel::IO::YIoBase> io, bool remote);
  uint64_t CountOpenSessions();

  Qel::YString data_folder_;
  Qel::YString tcp_address_;
  int lock_fd_ = -1;
  std::unique_ptr<YAgentState> state_;
  std::unique_ptr<YOverlayDispatcher> dispatcher_;
  Qel::IO::YService service_;
  std::shared_ptr<Qel::IO::YListener> unix_listener_;
  std::shared_ptr<Qel::IO::YListener> tcp_listener_;
  std::mutex sessions_mutex_;
  std::vector<std::weak_ptr<Qel::IO::YSession>> sessions_;
};

}  // namespace Agent
