// Agent::YOverlayDispatcher: the one table that maps an overlay request's
// method to the agent's handler. Dispatch never lets anything but a YError
// out: an unknown method is code 228 naming it, missing parameters are code
// 56, bad values code 55; the session turns the error into an error reply.
//
// Pushes (the agent's own requests to a client, e.g. "ova_refresh_path"
// after "overlay_path_status_cached") go through the `push` function given to
// Dispatch, which sends them after the reply.
//
// With "csmOverlay" at 0 the path status requests answer "none" and push
// nothing; the subscriptions they make are kept, and switching the option
// back on through "overlay_configdb_put" pushes every subscribed status.
//
// Thread-safety: Dispatch may be called from many threads at once; the state
// it touches is synchronised.
#pragma once

#include <functional>
#include <map>

#include "Qel/IO/YCommand.h"
#include "YAgentState.h"
#include "YMenuProvider.h"

namespace Agent {

// The way back to the client whose request is being handled: `send` posts
// one of the agent's own requests to it (after the reply); `clientId` names
// the client for later pushes (path status subscriptions).
struct YPushChannel {
  uint64_t clientId = 0;
  std::function<void(Qel::IO::YCommandPtr request)> send;
  void operator()(Qel::IO::YCommandPtr request) const {
    if (send) send(std::move(request));
  }
  explicit operator bool() const { return static_cast<bool>(send); }
};

class YOverlayDispatcher {
 public:
  using Push = YPushChannel;

  explicit YOverlayDispatcher(YAgentState& state);

  // The reply to `request`; raises YError for an error reply.
  Qel::IO::YCommandPtr Dispatch(const Qel::IO::YCommand& request, const Push& push);

  // An "ova_refresh_path" request carrying these statuses.
  static Qel::IO::YCommandPtr CreateRefresh(const YPathStatusTable::Changes& changes);

  // The methods the table knows, for logs and tests.
  std::vector<Qel::YString> GetMethods() const;

 private:
  using Handler = Qel::JSON::YObject (YOverlayDispatcher::*)(const Qel::JSON::YObject& params, const Push& push);

  Qel::JSON::YObject DebugList(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject DebugEnable(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject DebugDisable(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject ConfigDbPut(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject WatchdogTrigger(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject ResyncShareList(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject ResyncAll(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject GetRootShare(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject PathStatusSync(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject PathStatusCached(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject GetMenu(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject GetLink(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject RequestUi(const Qel::JSON::YObject& params, const Push& push);
  Qel::JSON::YObject LeaveShare(const Qel::JSON::YObject& params, const Push& push);

  void Rescan(const char* why, bool fromScratch);
  std::vector<Qel::YString> MessageNames(const Qel::JSON::YObject& params) const;

  YAgentState& state_;
  YMenuProvider menus_;
  std::map<Qel::YString, Handler> table_;
};

}  // namespace Agent
