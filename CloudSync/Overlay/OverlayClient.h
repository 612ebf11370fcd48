// OverlayClient: the process-wide client of the agent's overlay socket.
//
// Initialize(dataPath, ...) opens the client log "overlay.txt" in the data
// folder (message types switched on by "overlay_debug.txt", a comma-separated
// list of names), registers the system's codes and log types, creates the
// local context (the agent's "zarnuagent-overlay.socket") and one remote
// context per line of "remote.cfg" ("host, local root, remote root"; remote
// agents listen on port 8446), and starts the IO service with one thread.
// Deinitialize undoes it. ConnectToAgent hands out the local context's
// session, waiting up to 5 seconds.
//
// Thread-safety: every function takes the client lock (process-wide,
// recursive) around the client state; none holds it while waiting for the
// agent.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "CloudSync/Overlay/YOverlayContext.h"
#include "Qel/YString.h"

namespace OverlayClient {

inline constexpr Qel::Time::YDuration kConnectToAgentWait = Qel::Time::YDuration::Seconds(5);

struct RemoteContext {
  Qel::YString address;     // host + ":8446"
  Qel::YString localRoot;   // the folder here that maps to the remote agent
  Qel::YString remoteRoot;  // the same folder as the remote agent names it
  std::shared_ptr<YOverlayContext> context;
};

// One line of remote.cfg, parsed (no context yet).
struct RemoteEntry {
  Qel::YString address;
  Qel::YString localRoot;
  Qel::YString remoteRoot;
  bool operator==(const RemoteEntry&) const = default;
};

// Lines are split at line feeds (empty lines skipped) and fields at ","
// (empty fields skipped); a line with fewer than three fields is ignored,
// fields after the third are ignored; the roots are trimmed of blanks.
std::vector<RemoteEntry> ParseRemoteConfig(const Qel::YString& text);

void Initialize(const Qel::YString& dataPath, StatusCallback status, RefreshCallback refresh);
void Deinitialize();
bool IsInitialized();

// The local context's connected session. Raises code 55 (log type 15) when
// the client is not initialised or no session could be had within 5 s.
std::shared_ptr<Qel::IO::YSession> ConnectToAgent();

// The context that serves `path` and the path as its agent names it: the
// first remote context whose local root holds the path (translated to its
// remote root), else the local context and the path unchanged. The context
// is empty when the client is not initialised.
std::pair<std::shared_ptr<YOverlayContext>, Qel::YString> GetContextForPath(const Qel::YString& path);

std::shared_ptr<YOverlayContext> GetLocalContext();
std::vector<RemoteContext> GetRemoteContexts();

}  // namespace OverlayClient
