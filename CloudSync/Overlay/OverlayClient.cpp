#include "CloudSync/Overlay/OverlayClient.h"

#include "CloudSync/Codes.h"
#include "CloudSync/Overlay/OverlayLog.h"
#include "Qel/File/File.h"
#include "Qel/Log/YLog.h"
#include "Qel/Util/Util.h"

namespace OverlayClient {

namespace {

constexpr const char* kFile = "CloudSync/Overlay/OverlayClient";
constexpr const char* kClientLog = "overlay.txt";
constexpr const char* kDebugSwitchFile = "overlay_debug.txt";
constexpr const char* kRemoteConfig = "remote.cfg";
constexpr const char* kSocketFile = "zarnuagent-overlay.socket";
constexpr unsigned int kIoThreads = 1;
// The source lines ConnectToAgent's errors carry.
constexpr unsigned int kNotInitializedLine = 118;
constexpr unsigned int kNoSessionLine = 122;

struct ClientState {
  Qel::Thread::YMutex lock;
  Qel::IO::YService service;
  StatusCallback status;
  RefreshCallback refresh;
  std::shared_ptr<YOverlayContext> local;
  std::vector<RemoteContext> remotes;
};

// Never destroyed: contexts handed out may outlive Deinitialize, and their
// transports refer to the service.
ClientState& State() {
  static ClientState* state = new ClientState();
  return *state;
}

Qel::Log::YLog& Log() { return Qel::Log::GetGlobalLogger(); }

[[noreturn]] void NoAgent(unsigned int line, const Qel::YString& info) {
  Qel::Exception::YError e(kLogShell, kNoAgent, 0, line, kFile, "ConnectToAgent");
  e.SetInfo(info);
  Qel::Exception::Raise(std::move(e));
}

}  // namespace

std::vector<RemoteEntry> ParseRemoteConfig(const Qel::YString& text) {
  std::vector<RemoteEntry> entries;
  for (const Qel::YString& line : Qel::Util::SplitString(text, '\n')) {
    std::vector<Qel::YString> fields;
    for (const Qel::YString& field : Qel::Util::SplitString(line, ',')) {
      if (!field.empty()) fields.push_back(field);
    }
    if (fields.size() < 3) continue;
    entries.push_back({fields[0] + ":" + kRemotePort, Qel::Util::Trim(fields[1]), Qel::Util::Trim(fields[2])});
  }
  return entries;
}

void Initialize(const Qel::YString& dataPath, StatusCallback status, RefreshCallback refresh) {
  ClientState& s = State();
  std::lock_guard<Qel::Thread::YMutex> lock(s.lock);
  try {
    Log().Open(Qel::File::AppendPaths(dataPath, kClientLog));
  } catch (const Qel::Exception::YError&) {
    // No data folder yet: the client works without its log.
  }
  const Qel::YString switches = Qel::File::AppendPaths(dataPath, kDebugSwitchFile);
  if (Qel::File::DoesFileExist(switches)) {
    Qel::YString text = Qel::File::GetContents(switches);
    if (!text.empty() && text.back() == '\0') text.pop_back();
    try {
      Log().SetEnabledMessages(Qel::Util::SplitString(text, ','));
    } catch (const Qel::Exception::YError& e) {
      Log().Write(kLogOva, "Ignoring " + switches + ": " + e.GetSummary());
    }
  }
  CloudSync::RegisterErrorCodes();
  CloudSync::RegisterLogTypes();
  s.status = status ? StatusCallback([status](const PathStatus& p) { status(p); }) : StatusCallback();
  s.refresh = refresh;
  Log().Write(kLogOva, "Initializing local overlay context at path " + dataPath + " " + kClientVersion);
  s.local = YOverlayContext::Create(Qel::File::AppendPaths(dataPath, kSocketFile), s.service, true, s.status,
                                    s.refresh);
  s.remotes.clear();
  const Qel::YString remote_file = Qel::File::AppendPaths(dataPath, kRemoteConfig);
  Qel::YString remote_text;
  try {
    if (Qel::File::DoesFileExist(remote_file)) remote_text = Qel::File::GetContents(remote_file);
  } catch (const Qel::Exception::YError&) {
    remote_text.clear();  // unreadable: no remote contexts
  }
  for (const RemoteEntry& entry : ParseRemoteConfig(remote_text)) {
    std::erase_if(s.remotes, [&entry](const RemoteContext& r) {
      return r.address == entry.address && r.localRoot == entry.localRoot && r.remoteRoot == entry.remoteRoot;
    });
    s.remotes.push_back({entry.address, entry.localRoot, entry.remoteRoot,
                         YOverlayContext::Create(entry.address, s.service, false, s.status, s.refresh)});
  }
  s.service.Initialize(kIoThreads);
}

void Deinitialize() {
  ClientState& s = State();
  Log().Write(kLogOva, "Deinitializing overlay");
  Log().Close();
  s.service.Deinitialize();
  std::lock_guard<Qel::Thread::YMutex> lock(s.lock);
  s.status = nullptr;
  s.refresh = nullptr;
  s.local.reset();
  s.remotes.clear();
  Log().Write(kLogOva, "Deinitialized overlay");
}

bool IsInitialized() {
  ClientState& s = State();
  std::lock_guard<Qel::Thread::YMutex> lock(s.lock);
  return s.local != nullptr;
}

std::shared_ptr<Qel::IO::YSession> ConnectToAgent() {
  std::shared_ptr<YOverlayContext> local = GetLocalContext();
  if (!local) NoAgent(kNotInitializedLine, "the overlay client is not initialised");
  std::shared_ptr<Qel::IO::YSession> session = local->GetSession(kConnectToAgentWait);
  if (!session) {
    const Qel::Exception::YError why = local->GetLastConnectError();
    NoAgent(kNoSessionLine, "no agent answers at " + local->GetAddress() +
                                (why.GetCcode() ? " (" + why.GetDescription() + ")" : Qel::YString()));
  }
  return session;
}

std::pair<std::shared_ptr<YOverlayContext>, Qel::YString> GetContextForPath(const Qel::YString& path) {
  ClientState& s = State();
  std::lock_guard<Qel::Thread::YMutex> lock(s.lock);
  for (const RemoteContext& r : s.remotes) {
    if (!Qel::File::IsPathWithinPath(path, r.localRoot, true)) continue;
    const Qel::YString rest = path.substr(std::min(path.size(), r.localRoot.size()));
    return {r.context, Qel::File::ConvertToOsPathSep(Qel::File::AppendPaths(r.remoteRoot, rest, "/"))};
  }
  return {s.local, path};
}

std::shared_ptr<YOverlayContext> GetLocalContext() {
  ClientState& s = State();
  std::lock_guard<Qel::Thread::YMutex> lock(s.lock);
  return s.local;
}

std::vector<RemoteContext> GetRemoteContexts() {
  ClientState& s = State();
  std::lock_guard<Qel::Thread::YMutex> lock(s.lock);
  return s.remotes;
}

}  // namespace OverlayClient
