#include "YAgent.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "AgentConstants.h"
#include "YDeviceId.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/Log/YLog.h"

namespace Agent {

namespace {

constexpr const char* kFile = "agent/ZarnuAgent/YAgent";
constexpr unsigned int kSocketMode = 0600;
constexpr unsigned int kFolderMode = 0700;
constexpr const char* kAuthMethod = "overlay_auth";

Qel::Log::YLog& Log() { return Qel::Log::GetGlobalLogger(); }

// Compares two secrets in time that depends on their lengths only.
bool SameSecret(const Qel::YString& given, const Qel::YString& expected) {
  unsigned char differ = given.size() == expected.size() ? 0 : 1;
  for (size_t i = 0; i < given.size(); ++i) {
    differ |= static_cast<unsigned char>(given[i] ^ expected[i % (expected.empty() ? 1 : expected.size())]);
  }
  return !expected.empty() && differ == 0;
}

}  // namespace

YAgent::YAgent(const Qel::YString& dataFolder, const Qel::YString& tcpAddress)
    : data_folder_(dataFolder), tcp_address_(tcpAddress) {}

YAgent::~YAgent() {
  service_.Deinitialize();
  if (lock_fd_ >= 0) ::close(lock_fd_);
}

void YAgent::TakeLock() {
  const Qel::YString path = Qel::File::AppendPaths(data_folder_, kLockFile);
  lock_fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock_fd_ < 0) QEL_RAISE_OS(kLogApp, errno, path, kFile, "TakeLock");
  if (::flock(lock_fd_, LOCK_EX | LOCK_NB) != 0) {
    // The code's text says it all; the one-line report names nothing more.
    if (errno == EWOULDBLOCK) QEL_RAISE(kLogApp, kAgentAlreadyRunning, "", kFile, "TakeLock");
    QEL_RAISE_OS(kLogApp, errno, path, kFile, "TakeLock");
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  if (::ftruncate(lock_fd_, 0) != 0 || ::pwrite(lock_fd_, pid.data(), pid.size(), 0) < 0) {
    QEL_RAISE_OS(kLogApp, errno, path, kFile, "TakeLock");
  }
}

uint64_t YAgent::PruneSessionsLocked() {
  uint64_t open = 0;
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    auto s = it->second.lock();
    if (!s || !s->IsConnected()) {
      if (state_) state_->GetPathStatuses().Unsubscribe(it->first);
      it = sessions_.erase(it);
    } else {
      ++open;
      ++it;
    }
  }
  return open;
}

uint64_t YAgent::CountOpenSessions() {
  std::lock_guard<std::mutex> lock(sessions_mutex_);
  return PruneSessionsLocked();
}

void YAgent::PushStatuses(uint64_t clientId, const YPathStatusTable::Changes& changes) {
  if (!state_->GetSettings().IsOverlayEnabled()) return;  // the overlay is off: nothing is pushed
  std::shared_ptr<Qel::IO::YSession> session;
  {
    std::lock_guard<std::mutex> lock(sessions_mutex_);
    auto it = sessions_.find(clientId);
    if (it != sessions_.end()) session = it->second.lock();
  }
  if (!session || !session->IsConnected()) {
    state_->GetPathStatuses().Unsubscribe(clientId);
    return;
  }
  Qel::IO::YCommandPtr refresh = YOverlayDispatcher::CreateRefresh(changes);
  service_.Post([session, refresh] { session->ProcessRequestAsync(refresh, nullptr); });
}

void YAgent::OnAccept(std::shared_ptr<Qel::IO::YIoBase> io, bool remote) {
  if (!remote) {
    const std::optional<uint32_t> uid = io->GetPeerUid();
    if (!uid || *uid != ::getuid()) {
      Log().Write(kLogExc, "Refused a client of uid " + (uid ? std::to_string(*uid) : std::string("unknown")) +
                                   " (the agent serves uid " + std::to_string(::getuid()) + " only)");
      io->Close();
      return;
    }
  }
  // Remote sessions must prove the account's token before anything else.
  auto trusted = std::make_shared<std::atomic<bool>>(!remote);
  uint64_t clientId = 0;
  {
    std::lock_guard<std::mutex> lock(sessions_mutex_);
    clientId = ++next_client_id_;
  }
  Qel::IO::YService* service = &service_;
  YAgentState* state = state_.get();
  YOverlayDispatcher* dispatcher = dispatcher_.get();
  auto session = std::make_shared<Qel::IO::YSession>(
      [trusted, service, state, dispatcher, clientId](std::shared_ptr<Qel::IO::YSession> s,
                                                  Qel::IO::YCommandPtr request) -> Qel::IO::YCommandPtr {
        if (!trusted->load()) {
          const Qel::YString token = state->GetToken();
          const bool proven = request->GetMethod() == kAuthMethod && !token.empty() &&
                              request->GetParams().Has("auth_token") &&
                              SameSecret(request->GetParams().Get<Qel::YString>("auth_token", kLogSession), token);
          if (!proven) {
            std::weak_ptr<Qel::IO::YSession> weak = s;
            service->RunAfter(Qel::Time::YDuration::Milliseconds(100), [weak] {
              if (auto dead = weak.lock()) dead->Release();
            });
            QEL_RAISE(kLogSession, kNotLoggedIn, "a remote session must start with " + Qel::YString(kAuthMethod) +
                                                     " and the account's token",
                      kFile, "Authenticate");
          }
          trusted->store(true);
          Log().Write(kLogSession, "Remote client authenticated");
          return Qel::IO::YCommand::CreateReply(*request);
        }
        std::weak_ptr<Qel::IO::YSession> weak = s;
        // Pushes leave after the reply: they are posted, not sent inline.
        YPushChannel channel;
        channel.clientId = clientId;
        channel.send = [service, weak](Qel::IO::YCommandPtr push) {
          service->Post([weak, push] {
            if (auto live = weak.lock()) live->ProcessRequestAsync(push, nullptr);
          });
        };
        return dispatcher->Dispatch(*request, channel);
      });
  {
    // Ended sessions are dropped as new ones come, so the list holds about the
    // open ones only, however many clients came and went.
    std::lock_guard<std::mutex> lock(sessions_mutex_);
    PruneSessionsLocked();
    sessions_[clientId] = session;
  }
  ++state_->sessionsServed;
  Log().Write(kLogSession, "Client connected on " + io->Describe());
  session->Allocate(io);
}

void YAgent::StartPeerDiscovery() {
  CloudSync::YPeerRegistrar::Options options;
  options.advertise = true;
  char host[256] = {};
  if (::gethostname(host, sizeof(host) - 1) != 0) std::snprintf(host, sizeof(host), "unknown");
  CloudSync::PeerInfo self;
  self.deviceId = LoadDeviceId(data_folder_);
  self.host = host;
  self.version = kVersion;
  YAgentState* state = state_.get();
  options.describeSelf = [state, self] {
    CloudSync::PeerInfo now = self;
    now.user = state->GetUser();  // a link made while the agent runs shows at once
    return now;
  };
  peers_ = std::make_unique<CloudSync::YPeerRegistrar>(std::move(options));
  peers_->Initialize();
  for (const Qel::YString& problem : peers_->GetProblems()) Log().Write(kLogApp, "Peer discovery: " + problem);
}

int YAgent::Run() {
  Qel::File::CreatePath(data_folder_, true);
  ::chmod(data_folder_.c_str(), kFolderMode);
  TakeLock();
  Qel::Log::YLog& log = Log();
  log.Open(Qel::File::AppendPaths(data_folder_, kLogFile));
  state_ = std::make_unique<YAgentState>(data_folder_);
  state_->Reload();
  state_->RestoreLogTypes();
  state_->SetOpenSessionCounter([this] { return CountOpenSessions(); });
  dispatcher_ = std::make_unique<YOverlayDispatcher>(*state_);
  state_->GetPathStatuses().SetNotify(
      [this](uint64_t clientId, const YPathStatusTable::Changes& changes) { PushStatuses(clientId, changes); });
  log.Write(kLogApp, "ZarnuAgent " + Qel::YString(kVersion) + " starting for " + data_folder_ + " (pid " +
                         std::to_string(::getpid()) + ")");

  service_.Initialize(kIoThreads);
  const Qel::YString socket_path = Qel::File::AppendPaths(data_folder_, kSocketFile);
  unix_listener_ = Qel::IO::YListener::CreateUnix(service_, socket_path, kSocketMode);
  unix_listener_->Start([this](std::shared_ptr<Qel::IO::YIoBase> io) { OnAccept(io, false); });
  if (!tcp_address_.empty()) {
    tcp_listener_ = Qel::IO::YListener::CreateTcp(service_, tcp_address_);
    tcp_listener_->Start([this](std::shared_ptr<Qel::IO::YIoBase> io) { OnAccept(io, true); });
    log.Write(kLogApp, "Remote clients accepted on " + tcp_listener_->GetAddress());
  }
  log.Write(kLogApp, "Listening on " + socket_path + (state_->GetRootFolder().empty()
                                                          ? Qel::YString(", not linked")
                                                          : ", root folder " + state_->GetRootFolder()));
  // The socket's line comes first; a TCP listener gets a second line with its
  // real address (port 0 picks a free port).
  std::printf("listening on %s\n", socket_path.c_str());
  if (tcp_listener_) std::printf("listening on %s\n", tcp_listener_->GetAddress().c_str());
  std::fflush(stdout);

  engine_ = std::make_unique<Sync::YSyncEngine>(*state_);
  state_->SetResyncHandler([this](bool fromScratch) { engine_->RequestResync(fromScratch); });
  engine_->Start();
  StartPeerDiscovery();

  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGHUP);
  int signal_number = 0;
  while (sigwait(&stop, &signal_number) != 0) {
  }
  log.Write(kLogApp, "Stopping on signal " + std::to_string(signal_number));

  peers_->Stop();  // says goodbye, so scanning peers drop this agent at once
  state_->SetResyncHandler(nullptr);
  engine_->Stop();
  unix_listener_->Close();
  if (tcp_listener_) tcp_listener_->Close();
  std::vector<std::shared_ptr<Qel::IO::YSession>> open;
  {
    std::lock_guard<std::mutex> lock(sessions_mutex_);
    for (auto& [id, w] : sessions_) {
      if (auto s = w.lock()) open.push_back(s);
    }
    sessions_.clear();
  }
  for (auto& s : open) s->Release();
  state_->GetPathStatuses().SetNotify(nullptr);
  service_.Deinitialize();
  ::unlink(socket_path.c_str());
  log.Write(kLogApp, "Stopped");
  log.Close();
  return 0;
}

}  // namespace Agent
