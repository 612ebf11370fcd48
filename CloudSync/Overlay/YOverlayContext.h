// OverlayClient::YOverlayContext: the client's side of one agent, local
// (Unix-domain socket) or remote (TCP), with its connection state machine,
// its path status cache and the requests of the overlay protocol
// (docs/overlay-protocol.md).
//
// Connection states (derived from the members): Idle (no IO, no session),
// Connecting (IO, no session, no error), Connected (a connected session),
// Failed (IO with an error, last connect error set). Nothing reconnects by
// itself: only GetSession moves a context to Connecting, and every such move
// empties the path status cache and the cached root share.
//
// Locks: the context lock is taken before the cache's lock; it is never held
// while sleeping, waiting for a reply, releasing an old session or closing an
// errored IO; callbacks run with no lock held. The connect reservation admits
// one GetSession at a time: a second caller gets an empty session at once.
//
// Lifetime: always created shared (Create); IO completions hold weak
// pointers, so a context may go while a connection is pending.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "CloudSync/Overlay/MenuItem.h"
#include "CloudSync/Overlay/PathStatus.h"
#include "CloudSync/Overlay/YOverlaySession.h"
#include "Qel/Container/YCacheMap.h"
#include "Qel/Exception/YError.h"
#include "Qel/IO/YIo.h"
#include "Qel/IO/YService.h"
#include "Qel/Thread/YMutex.h"
#include "Qel/Time/YTime.h"

namespace OverlayClient {

using StatusCallback = std::function<void(const PathStatus&)>;
using RefreshCallback = std::function<void()>;

// The path status cache of a context: 1024 entries, pruned every 5 minutes.
inline constexpr uint32_t kCacheCapacity = 1024;
inline constexpr Qel::Time::YDuration kCachePruneInterval = Qel::Time::YDuration::Minutes(5);
// Waits of the two submission paths and of a connection attempt.
inline constexpr Qel::Time::YDuration kSubmitSessionWait = Qel::Time::YDuration::Milliseconds(100);
inline constexpr Qel::Time::YDuration kRequestTimeout = Qel::Time::YDuration::Seconds(3);
inline constexpr Qel::Time::YDuration kConnectTimeout = Qel::Time::YDuration::Seconds(3);

// The poll step of GetSession's wait: half the timeout, at most 500 ms.
Qel::Time::YDuration PollStep(Qel::Time::YDuration timeout);

class YOverlayContext : public std::enable_shared_from_this<YOverlayContext> {
 public:
  using Completion = Qel::IO::YSession::Completion;

  static std::shared_ptr<YOverlayContext> Create(const Qel::YString& address, Qel::IO::YService& service,
                                                 bool isLocal, StatusCallback status, RefreshCallback refresh);
  ~YOverlayContext();
  YOverlayContext(const YOverlayContext&) = delete;
  YOverlayContext& operator=(const YOverlayContext&) = delete;

  // The connected session, or empty: another thread is connecting, the
  // attempt failed, or `timeout` passed (zero: start connecting, do not
  // wait). Raises code 65 when the calling thread is asked to terminate.
  std::shared_ptr<YOverlaySession> GetSession(Qel::Time::YDuration timeout);

  // Synchronous request: a session within 100 ms (else code 88 under
  // "CSM_EXC"), then the reply within 3 s (else the session's error).
  Qel::IO::YCommandPtr SubmitAgentRequest(Qel::IO::YCommandPtr command);
  // Asynchronous request: starts a connection if needed but does not wait
  // for it (code 88 when there is no session yet).
  void SubmitAgentRequestAsync(Qel::IO::YCommandPtr command, Completion completion);
  // The handler of requests the agent sends ("ova_refresh_path",
  // "ova_refresh_menu"); any other method raises code 1.
  Qel::IO::YCommandPtr ProcessAgentRequest(std::shared_ptr<Qel::IO::YSession> session, Qel::IO::YCommandPtr request);

  PathStatus GetCachedPathStatus(const Qel::YString& path);
  PathStatus GetPathStatus(const Qel::YString& path);
  Qel::YString GetLink(const std::vector<Qel::YString>& paths, uint64_t flags);
  Qel::YString GetLink(const Qel::YString& path, uint64_t flags);
  std::vector<MenuItemPtr> GetContextMenu(const std::vector<Qel::YString>& paths);
  std::vector<MenuItemPtr> GetContextMenu(const Qel::YString& path);
  void RequestUi(const Qel::YString& path, uint64_t command, const Qel::JSON::YObject& argument);
  void LeaveShare(const Qel::YString& sharePath);
  // The agent's root share, asked at most once per connection; "" when the
  // agent cannot be asked.
  Qel::YString GetRootShare();

  const Qel::YString& GetAddress() const { return address_; }
  bool IsLocal() const { return is_local_; }
  // The error of the last failed connection attempt (code 0 when none).
  Qel::Exception::YError GetLastConnectError() const;
  Qel::Container::YCacheMap<Qel::YString, PathStatus>& GetCache() { return cache_; }
  // How many threads are inside GetSession right now (the connect
  // reservation's count); a diagnostic, stale as soon as it is read.
  unsigned int GetSessionCallers() const { return reservation_.GetCount(); }

 private:
  YOverlayContext(const Qel::YString& address, Qel::IO::YService& service, bool isLocal, StatusCallback status,
                  RefreshCallback refresh);
  // REQUIRES: mutex_ held.
  void StartConnection();
  void OnConnected(std::shared_ptr<Qel::IO::YIoBase> io, const Qel::Exception::YError* error);
  void Log(const Qel::YString& text) const;

  mutable Qel::Thread::YMutex mutex_;
  Qel::YString address_;
  Qel::IO::YService& service_;
  std::shared_ptr<Qel::IO::YConnectedIo> io_;
  std::shared_ptr<YOverlaySession> session_;
  bool is_local_;
  bool connecting_ = false;
  Qel::Container::YCacheMap<Qel::YString, PathStatus> cache_;
  Qel::YString root_share_;
  Qel::Thread::YReservation reservation_;
  StatusCallback status_callback_;
  RefreshCallback refresh_callback_;
  Qel::Exception::YError last_connect_error_;
};

}  // namespace OverlayClient
