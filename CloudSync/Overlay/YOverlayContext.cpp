// Invariants: session_ is set only while io_ is the transport it runs on;
// connecting_ is true from StartConnection until its completion ran (or was
// superseded by a newer transport); last_connect_error_ has code 0 except
// after a failed attempt and until the next one starts.
#include "CloudSync/Overlay/YOverlayContext.h"

#include "CloudSync/Overlay/OverlayLog.h"
#include "Qel/JSON/YValue.h"
#include "Qel/Log/YLog.h"
#include "Qel/Thread/YThread.h"

namespace OverlayClient {

namespace {

constexpr const char* kFile = "CloudSync/Overlay/YOverlayContext";
constexpr Qel::Time::YDuration kMaxPollStep = Qel::Time::YDuration::Milliseconds(500);
constexpr Qel::Time::YDuration kSleepSlice = Qel::Time::YDuration::Milliseconds(50);
// A connection attempt that throws is reported through a timer this late.
constexpr Qel::Time::YDuration kFailedStartDelay = Qel::Time::YDuration::Seconds(2);
// The source lines the submission errors carry.
constexpr unsigned int kSubmitLine = 431;
constexpr unsigned int kSubmitAsyncLine = 449;
constexpr unsigned int kAgentRequestLine = 420;

Qel::Exception::YError NoError() { return Qel::Exception::YError(kLogOva, 0, 0, 0, kFile, ""); }

[[noreturn]] void RaiseAt(unsigned int logType, unsigned int code, unsigned int line, const char* function,
                          const Qel::YString& info) {
  Qel::Exception::YError e(logType, code, 0, line, kFile, function);
  e.SetInfo(info);
  Qel::Exception::Raise(std::move(e));
}

Qel::JSON::YArray TextArray(const std::vector<Qel::YString>& texts) {
  Qel::JSON::YArray array;
  for (const Qel::YString& t : texts) array.push_back(std::make_shared<Qel::JSON::YValue>(t));
  return array;
}

// Sleeps `step` in slices of 50 ms, checking for a termination request
// between them. Returns early once `settled()` holds (the attempt connected or
// failed): the outcome is the same as after the whole step, only sooner.
template <class Settled>
void SleepStep(Qel::Time::YDuration step, Settled settled) {
  for (Qel::Time::YDuration slept; slept < step; slept += kSleepSlice) {
    Qel::Thread::TerminateCheck();
    if (settled()) return;
    qel_sleep(static_cast<unsigned int>(std::min(step - slept, kSleepSlice).GetMilliseconds()));
  }
  Qel::Thread::TerminateCheck();
}

}  // namespace

Qel::Time::YDuration PollStep(Qel::Time::YDuration timeout) { return std::min(timeout / 2, kMaxPollStep); }

std::shared_ptr<YOverlayContext> YOverlayContext::Create(const Qel::YString& address, Qel::IO::YService& service,
                                                         bool isLocal, StatusCallback status,
                                                         RefreshCallback refresh) {
  return std::shared_ptr<YOverlayContext>(
      new YOverlayContext(address, service, isLocal, std::move(status), std::move(refresh)));
}

YOverlayContext::YOverlayContext(const Qel::YString& address, Qel::IO::YService& service, bool isLocal,
                                 StatusCallback status, RefreshCallback refresh)
    : address_(address),
      service_(service),
      is_local_(isLocal),
      cache_("YCacheMap", kCacheCapacity, kCachePruneInterval),
      status_callback_(std::move(status)),
      refresh_callback_(std::move(refresh)),
      last_connect_error_(NoError()) {}

YOverlayContext::~YOverlayContext() {
  if (session_) session_->Release();
  if (io_) io_->Close();
}

void YOverlayContext::Log(const Qel::YString& text) const { Qel::Log::GetGlobalLogger().Write(kLogOva, text); }

Qel::Exception::YError YOverlayContext::GetLastConnectError() const {
  std::lock_guard<Qel::Thread::YMutex> lock(mutex_);
  return last_connect_error_;
}

std::shared_ptr<YOverlaySession> YOverlayContext::GetSession(Qel::Time::YDuration timeout) {
  Qel::Thread::YReservation::Scope reservation(reservation_);
  if (!reservation.IsFirst()) {
    Log("A connection attempt to agent at address " + address_ + " is already being made");
    return nullptr;
  }
  std::unique_lock<Qel::Thread::YMutex> lock(mutex_);
  if (session_ && session_->IsConnected()) return session_;

  std::shared_ptr<YOverlaySession> old_session;
  std::shared_ptr<Qel::IO::YConnectedIo> errored_io;
  if (session_) {
    Log("Reconnecting: " + session_->GetSessionError().GetSummary());
    old_session = std::move(session_);
  }
  bool start = true;
  if (io_) {
    Qel::Exception::YError io_error = NoError();
    if (io_->HasError(io_error) || (!io_->IsOpen() && !connecting_)) {
      errored_io = std::move(io_);
    } else if (connecting_) {
      start = false;  // an attempt is under way on this transport: wait for it
    }
  }
  if (!io_) {
    if (is_local_) io_ = Qel::IO::YUnixDomainIo::Create(service_);
    else io_ = Qel::IO::YTcpIo::Create(service_);
  }
  if (start) {
    last_connect_error_ = NoError();
    Qel::Log::GetGlobalLogger().Write(kLogOva, "Attempting to connect to agent at address " + address_);
    lock.unlock();
    if (old_session) {
      Log("Releasing old session");
      old_session->Release();
    } else if (errored_io) {
      Log("Closing errored IO");
      errored_io->Close();
    }
    lock.lock();
    root_share_.clear();
    cache_.Clear();
    StartConnection();
  }
  if (timeout.IsZero()) {
    Log("Kicked off connection to agent at address " + address_ + " but not waiting");
    return nullptr;
  }
  const Qel::Time::YDuration step = PollStep(timeout);
  for (Qel::Time::YDuration elapsed;; elapsed += step) {
    if (session_) return session_;
    if (last_connect_error_.GetCcode() != 0) {
      Log("Error connecting to agent: " + last_connect_error_.GetSummary());
      return nullptr;
    }
    if (elapsed >= timeout) {
      Log("Timed out connecting to agent");
      return nullptr;
    }
    lock.unlock();
    SleepStep(step, [this] {
      std::lock_guard<Qel::Thread::YMutex> l(mutex_);
      return session_ != nullptr || last_connect_error_.GetCcode() != 0;
    });
    lock.lock();
  }
}

void YOverlayContext::StartConnection() {
  Log("Connectiong to agent at path " + address_);
  connecting_ = true;
  std::weak_ptr<YOverlayContext> weak = weak_from_this();
  auto completion = [weak](std::shared_ptr<Qel::IO::YIoBase> io, const Qel::Exception::YError* error) {
    if (error) {
      Qel::Log::GetGlobalLogger().Write(kLogOva, "Failed to connect to overlay server " + error->GetSummary());
    } else {
      Qel::Log::GetGlobalLogger().Write(kLogOva, "Successfully connected to agent");
    }
    if (auto context = weak.lock()) context->OnConnected(io, error);
  };
  std::shared_ptr<Qel::IO::YConnectedIo> io = io_;
  try {
    io->ConnectAsync(address_, completion, kConnectTimeout);
  } catch (const Qel::Exception::YError& e) {
    service_.RunAfter(kFailedStartDelay, [completion, io, e] { completion(io, &e); });
  }
}

void YOverlayContext::OnConnected(std::shared_ptr<Qel::IO::YIoBase> io, const Qel::Exception::YError* error) {
  std::shared_ptr<YOverlaySession> session;
  if (!error) {
    std::weak_ptr<YOverlayContext> weak = weak_from_this();
    session = std::make_shared<YOverlaySession>(
        [weak](std::shared_ptr<Qel::IO::YSession> s, Qel::IO::YCommandPtr request) -> Qel::IO::YCommandPtr {
          auto context = weak.lock();
          if (!context) RaiseAt(kLogExc, kGeneralFailure, __LINE__, "ProcessAgentRequest", "context is gone");
          return context->ProcessAgentRequest(std::move(s), std::move(request));
        });
    session->Allocate(io);
  }
  std::lock_guard<Qel::Thread::YMutex> lock(mutex_);
  if (io != io_) {
    // A newer transport replaced this one meanwhile.
    if (session) session->Release();
    return;
  }
  connecting_ = false;
  if (error) last_connect_error_ = *error;
  else session_ = session;
}

Qel::IO::YCommandPtr YOverlayContext::SubmitAgentRequest(Qel::IO::YCommandPtr command) {
  std::shared_ptr<YOverlaySession> session = GetSession(kSubmitSessionWait);
  if (!session) {
    RaiseAt(kLogExc, kNoSession, kSubmitLine, "SubmitAgentRequest", "no session with the agent at " + address_);
  }
  return session->ProcessRequest(std::move(command), kRequestTimeout);
}

void YOverlayContext::SubmitAgentRequestAsync(Qel::IO::YCommandPtr command, Completion completion) {
  std::shared_ptr<YOverlaySession> session = GetSession(Qel::Time::YDuration());
  if (!session) {
    RaiseAt(kLogExc, kNoSession, kSubmitAsyncLine, "SubmitAgentRequestAsync",
            "no session with the agent at " + address_);
  }
  session->ProcessRequestAsync(std::move(command), std::move(completion));
}

Qel::IO::YCommandPtr YOverlayContext::ProcessAgentRequest(std::shared_ptr<Qel::IO::YSession>,
                                                          Qel::IO::YCommandPtr request) {
  const Qel::YString method = request->GetMethod();
  if (Qel::Log::GetGlobalLogger().IsEnabled(kLogOva)) {
    Log("Processing agent request " + method + " " + request->ToJsonText());
  }
  if (method == "ova_refresh_path") {
    for (const Qel::JSON::YValuePtr& v : request->GetParams().Get<Qel::JSON::YArray>("paths", kLogOva)) {
      const Qel::JSON::YObject entry = v ? v->AsObject() : Qel::JSON::YObject();
      PathStatus status;
      status.path = entry.Get<Qel::YString>("path", kLogOva);
      status.cloudStatus = static_cast<int32_t>(entry.Get<unsigned long long>("status", kLogOva));
      status.syncProgress = static_cast<int32_t>(entry.Get<unsigned long long>("progress", kLogOva));
      status.flags = static_cast<uint32_t>(entry.Get<unsigned long long>("flags", kLogOva));
      StatusCallback callback;
      {
        std::lock_guard<Qel::Thread::YMutex> lock(mutex_);
        const auto [found, cached] = cache_.Find(status.path);
        if (found && cached == status) continue;
        Log("Updating cached path status " + status.path + " " + std::to_string(status.cloudStatus) + " " +
            std::to_string(status.syncProgress) + " " + std::to_string(status.flags));
        cache_.Put(status.path, status);
        callback = status_callback_;
      }
      if (callback) callback(status);
    }
    return Qel::IO::YCommand::CreateReply(*request);
  }
  if (method == "ova_refresh_menu") {
    RefreshCallback callback;
    {
      std::lock_guard<Qel::Thread::YMutex> lock(mutex_);
      callback = refresh_callback_;
    }
    if (callback) callback();
    return Qel::IO::YCommand::CreateReply(*request);
  }
  RaiseAt(kLogExc, kGeneralFailure, kAgentRequestLine, "ProcessAgentRequest", "Unknown agent request " + method);
}

PathStatus YOverlayContext::GetCachedPathStatus(const Qel::YString& path) {
  Log("GetCachedPathStatus for path " + path);
  {
    std::lock_guard<Qel::Thread::YMutex> lock(mutex_);
    const auto [found, cached] = cache_.Find(path);
    if (found) return cached;
  }
  auto request = Qel::IO::YCommand::CreateRequest("overlay_path_status_cached");
  request->SetParam("file_path", Qel::JSON::YValue(path));
  SubmitAgentRequestAsync(request, nullptr);
  PathStatus status;
  status.path = path;
  return status;
}

PathStatus YOverlayContext::GetPathStatus(const Qel::YString& path) {
  Log("GetPathStatus for path " + path);
  auto request = Qel::IO::YCommand::CreateRequest("overlay_path_status_sync");
  request->SetParam("file_path", Qel::JSON::YValue(path));
  const Qel::JSON::YObject result = SubmitAgentRequest(request)->GetResult();
  PathStatus status;
  status.path = path;
  status.cloudStatus = static_cast<int32_t>(result.Get<unsigned long long>("cloud_status", kLogOva));
  status.syncProgress = static_cast<int32_t>(result.Get<unsigned long long>("sync_progress", kLogOva));
  status.flags = static_cast<uint32_t>(result.Get<unsigned long long>("flags", kLogOva));
  return status;
}

Qel::YString YOverlayContext::GetLink(const std::vector<Qel::YString>& paths, uint64_t flags) {
  Log("GetLink for " + std::to_string(paths.size()) + " paths");
  auto request = Qel::IO::YCommand::CreateRequest("overlay_get_link");
  request->SetParam("file_paths", Qel::JSON::YValue(TextArray(paths)));
  request->SetParam("flags", Qel::JSON::YValue(static_cast<unsigned long long>(flags)));
  return SubmitAgentRequest(request)->GetResult().Get<Qel::YString>("link_url", kLogOva);
}

Qel::YString YOverlayContext::GetLink(const Qel::YString& path, uint64_t flags) {
  Log("GetLink for path " + path);
  auto request = Qel::IO::YCommand::CreateRequest("overlay_get_link");
  request->SetParam("file_paths", Qel::JSON::YValue(TextArray({path})));
  request->SetParam("flags", Qel::JSON::YValue(static_cast<unsigned long long>(flags)));
  return SubmitAgentRequest(request)->GetResult().Get<Qel::YString>("link_url", kLogOva);
}

namespace {

std::vector<MenuItemPtr> ReadMenus(const Qel::IO::YCommandPtr& reply) {
  std::vector<MenuItemPtr> menus;
  for (const Qel::JSON::YValuePtr& v : reply->GetResult().Get<Qel::JSON::YArray>("menus", kLogModel)) {
    auto item = std::make_shared<MenuItem>();
    item->Read(v ? v->AsObject() : Qel::JSON::YObject());
    menus.push_back(item);
  }
  return menus;
}

}  // namespace

std::vector<MenuItemPtr> YOverlayContext::GetContextMenu(const std::vector<Qel::YString>& paths) {
  Log("GetContextMenu for " + std::to_string(paths.size()) + " paths");
  auto request = Qel::IO::YCommand::CreateRequest("overlay_get_menu");
  request->SetParam("file_paths", Qel::JSON::YValue(TextArray(paths)));
  return ReadMenus(SubmitAgentRequest(request));
}

std::vector<MenuItemPtr> YOverlayContext::GetContextMenu(const Qel::YString& path) {
  Log("GetContextMenu for path " + path);
  auto request = Qel::IO::YCommand::CreateRequest("overlay_get_menu");
  request->SetParam("file_paths", Qel::JSON::YValue(TextArray({path})));
  return ReadMenus(SubmitAgentRequest(request));
}

void YOverlayContext::RequestUi(const Qel::YString& path, uint64_t command, const Qel::JSON::YObject& argument) {
  Log("RequestUi for path " + path + " " + std::to_string(command));
  auto request = Qel::IO::YCommand::CreateRequest("overlay_request_ui");
  request->SetParam("file_path", Qel::JSON::YValue(path));
  request->SetParam("ui_command", Qel::JSON::YValue(static_cast<unsigned long long>(command)));
  request->SetParam("ui_command_arg", Qel::JSON::YValue(argument));
  SubmitAgentRequest(request);
}

void YOverlayContext::LeaveShare(const Qel::YString& sharePath) {
  Log("LeaveShare for path " + sharePath);
  auto request = Qel::IO::YCommand::CreateRequest("overlay_leave_share");
  request->SetParam("share_path", Qel::JSON::YValue(sharePath));
  SubmitAgentRequest(request);
}

Qel::YString YOverlayContext::GetRootShare() {
  Log("GetRootShare");
  try {
    {
      // A busy context is a failure here (code 145), not a wait.
      Qel::Thread::YTryLockGuard guard(mutex_);
      if (!root_share_.empty()) return root_share_;
    }
    Log("Attempting to get root share from agent");
    const Qel::YString path = SubmitAgentRequest(Qel::IO::YCommand::CreateRequest("overlay_get_root_share"))
                                  ->GetResult()
                                  .Get<Qel::YString>("share_path", kLogOva);
    {
      std::lock_guard<Qel::Thread::YMutex> lock(mutex_);
      root_share_ = path;
    }
    Qel::Log::GetGlobalLogger().Write(kLogOva, "Root share path is " + path);
    return path;
  } catch (const Qel::Exception::YError& e) {
    Qel::Log::GetGlobalLogger().Write(kLogOva, "Failed to get root path " + e.GetSummary());
    return Qel::YString();
  }
}

}  // namespace OverlayClient
