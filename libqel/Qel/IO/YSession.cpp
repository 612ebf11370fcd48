// Sessions. Invariants: `pending` holds exactly the requests sent and not yet
// answered, failed or timed out; once `connected` turns false it never turns
// true again and `pending` is empty; completions and handlers are called with
// no session lock held; the write queue sends frames in order, one write in
// flight at a time.
#include "Qel/IO/YSession.h"

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <vector>

#include "Qel/Log/YLog.h"

namespace Qel::IO {

namespace {

constexpr const char* kFile = "libqel/Qel/IO/YSession";
constexpr size_t kReadChunk = 64 * 1024;
// A peer that leaves this much of our output unread is dropped.
constexpr size_t kMaxQueuedOutput = 64u * 1024 * 1024;

Exception::YError NoError() { return Exception::YError(kLogIo, 0, 0, 0, kFile, ""); }

Exception::YError NoSession(const YString& why, const char* function) {
  Exception::YError e(kLogIo, kNoSession, 0, __LINE__, kFile, function);
  e.SetInfo(why);
  return e;
}

}  // namespace

struct YSession::State {
  explicit State(RequestHandler h, uint32_t maxBody) : handler(std::move(h)), decoder(maxBody), max_body(maxBody) {}

  RequestHandler handler;
  YFrameDecoder decoder;  // used only by the read completion, one at a time
  uint32_t max_body;
  std::vector<char> read_buffer = std::vector<char>(kReadChunk);

  mutable std::mutex mutex;  // guards everything below
  std::shared_ptr<YIoBase> io;
  bool connected = false;
  bool ended = false;
  Exception::YError error = NoError();
  uint64_t next_id = 1;
  std::map<uint64_t, Completion> pending;
  std::deque<std::shared_ptr<const std::string>> output;
  size_t output_bytes = 0;
  bool writing = false;
  uint64_t sent = 0;
  uint64_t handled = 0;
};

namespace {

// The session operations that need the owning shared pointer.
class SessionOps {
 public:
  static void StartRead(const std::shared_ptr<YSession>& self, YSession::State& s);
  static void Send(const std::shared_ptr<YSession>& self, YSession::State& s, std::string frame);
  static void End(const std::shared_ptr<YSession>& self, YSession::State& s, const Exception::YError& why);
};

}  // namespace

YSession::YSession(RequestHandler handler, uint32_t maxFrameBody)
    : state_(std::make_shared<State>(std::move(handler), maxFrameBody)) {}

YSession::~YSession() {
  std::map<uint64_t, Completion> pending;
  std::shared_ptr<YIoBase> io;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    pending.swap(state_->pending);
    io = state_->io;
    state_->connected = false;
  }
  if (io) io->Close();
  const Exception::YError e = NoSession("session destroyed", "~YSession");
  for (auto& [id, completion] : pending) {
    if (completion) completion(nullptr, nullptr, &e);
  }
}

void YSession::Allocate(std::shared_ptr<YIoBase> io) {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->io = io;
    state_->connected = io != nullptr;
    state_->ended = false;
    state_->error = NoError();
  }
  if (!io) return;
  Exception::YError error = NoError();
  if (io->HasError(error) || !io->IsOpen()) {
    SessionOps::End(shared_from_this(), *state_,
                    error.GetCcode() ? error : NoSession("transport is not open", "Allocate"));
    return;
  }
  SessionOps::StartRead(shared_from_this(), *state_);
}

void YSession::Release() { SessionOps::End(shared_from_this(), *state_, NoSession("session released", "Release")); }

bool YSession::IsConnected() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->connected;
}

Exception::YError YSession::GetSessionError() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->error;
}

std::shared_ptr<YIoBase> YSession::GetIo() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->io;
}

uint64_t YSession::GetRequestsSent() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->sent;
}

uint64_t YSession::GetRequestsHandled() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->handled;
}

void YSession::ProcessRequestAsync(YCommandPtr request, Completion completion) {
  // Not connected: the completion runs at once, on the caller's thread.
  const auto refuse = [this, &completion](const Exception::YError& e) {
    if (completion) completion(shared_from_this(), nullptr, &e);
  };
  uint64_t id = 0;
  {
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (!state_->connected) {
      const Exception::YError e =
          state_->error.GetCcode() == kNoSession
              ? state_->error
              : NoSession(state_->error.GetCcode() ? state_->error.GetSummary() : YString("not connected"),
                          "ProcessRequestAsync");
      lock.unlock();
      refuse(e);
      return;
    }
    id = state_->next_id++;
  }
  request->SetId(id);
  std::string frame = EncodeFrame(*request, state_->max_body);  // may raise: nothing is pending yet
  {
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (!state_->connected) {
      lock.unlock();
      refuse(NoSession("session ended", "ProcessRequestAsync"));
      return;
    }
    state_->pending.emplace(id, std::move(completion));
    ++state_->sent;
  }
  SessionOps::Send(shared_from_this(), *state_, std::move(frame));
}

YCommandPtr YSession::ProcessRequest(YCommandPtr request, Time::YDuration timeout) {
  struct Waiter {
    std::mutex mutex;
    std::condition_variable cv;
    bool done = false;
    YCommandPtr reply;
    std::optional<Exception::YError> error;
  };
  auto waiter = std::make_shared<Waiter>();
  ProcessRequestAsync(request, [waiter](std::shared_ptr<YSession>, YCommandPtr reply, const Exception::YError* error) {
    std::lock_guard<std::mutex> lock(waiter->mutex);
    waiter->reply = std::move(reply);
    if (error) waiter->error = *error;
    waiter->done = true;
    waiter->cv.notify_all();
  });
  std::unique_lock<std::mutex> lock(waiter->mutex);
  if (timeout.IsInfinite()) {
    waiter->cv.wait(lock, [&] { return waiter->done; });
  } else if (!waiter->cv.wait_for(lock, timeout.ToChrono(), [&] { return waiter->done; })) {
    lock.unlock();
    {
      std::lock_guard<std::mutex> l(state_->mutex);
      state_->pending.erase(request->GetId());
    }
    Exception::YError e(kLogIo, ETIMEDOUT, Exception::kOsErrorSubCode, __LINE__, kFile, "ProcessRequest");
    e.SetInfo("no reply to " + request->GetMethod() + " within " + std::to_string(timeout.GetMilliseconds()) + " ms");
    Exception::Raise(std::move(e));
  }
  if (waiter->error) Exception::Raise(*waiter->error);
  return waiter->reply;
}

namespace {

void SessionOps::StartRead(const std::shared_ptr<YSession>& self, YSession::State& s) {
  std::shared_ptr<YIoBase> io;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.connected) return;
    io = s.io;
  }
  auto state = &s;
  io->ReadSome(s.read_buffer.data(), s.read_buffer.size(),
               [self, state](const Exception::YError* error, size_t bytes) {
                 YSession::State& s = *state;
                 if (error) {
                   End(self, s, *error);
                   return;
                 }
                 s.decoder.Feed(s.read_buffer.data(), bytes);
                 for (;;) {
                   std::optional<YCommand> command;
                   try {
                     command = s.decoder.Next();
                   } catch (const Exception::YError& e) {
                     Log::GetGlobalLogger().Write(kLogIo, "Closing session: " + e.GetSummary());
                     End(self, s, e);
                     return;
                   }
                   if (!command) break;
                   auto cmd = std::make_shared<YCommand>(std::move(*command));
                   if (cmd->IsRequest()) {
                     YCommandPtr reply;
                     try {
                       if (!s.handler) {
                         Exception::YError e(kLogIo, 1, 0, __LINE__, kFile, "ProcessRequest");
                         e.SetInfo("this side takes no requests: " + cmd->GetMethod());
                         throw e;
                       }
                       reply = s.handler(self, cmd);
                       if (!reply) reply = YCommand::CreateReply(*cmd);
                       reply->SetId(cmd->GetId());
                     } catch (const Exception::YError& e) {
                       reply = YCommand::CreateErrorReply(*cmd, e);
                     } catch (const std::exception& e) {
                       Exception::YError err(kLogIo, 1, 0, __LINE__, kFile, "ProcessRequest");
                       err.SetInfo(e.what());
                       reply = YCommand::CreateErrorReply(*cmd, err);
                     }
                     {
                       std::lock_guard<std::mutex> lock(s.mutex);
                       ++s.handled;
                     }
                     std::string frame;
                     try {
                       frame = EncodeFrame(*reply, s.max_body);
                     } catch (const Exception::YError& e) {
                       frame = EncodeFrame(*YCommand::CreateErrorReply(*cmd, e), s.max_body);
                     }
                     Send(self, s, std::move(frame));
                   } else {
                     YSession::Completion completion;
                     bool found = false;
                     {
                       std::lock_guard<std::mutex> lock(s.mutex);
                       auto it = s.pending.find(cmd->GetId());
                       if (it != s.pending.end()) {
                         completion = std::move(it->second);
                         s.pending.erase(it);
                         found = true;
                       }
                     }
                     if (!found) {
                       Log::GetGlobalLogger().Write(kLogIo, "Reply to no pending request: " + cmd->ToJsonText());
                       continue;
                     }
                     if (!completion) continue;
                     Exception::YError e = NoError();
                     if (cmd->GetError(e)) completion(self, nullptr, &e);
                     else completion(self, cmd, nullptr);
                   }
                 }
                 StartRead(self, s);
               });
}

void SessionOps::Send(const std::shared_ptr<YSession>& self, YSession::State& s, std::string frame) {
  std::shared_ptr<YIoBase> io;
  std::shared_ptr<const std::string> next;
  bool overflow = false;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.connected) return;
    s.output_bytes += frame.size();
    s.output.push_back(std::make_shared<const std::string>(std::move(frame)));
    overflow = s.output_bytes > kMaxQueuedOutput;
    if (!overflow) {
      if (s.writing) return;
      s.writing = true;
      next = s.output.front();
      io = s.io;
    }
  }
  if (overflow) {
    End(self, s, NoSession("peer leaves more than 64 MiB of output unread", "Send"));
    return;
  }
  // Writes the queue's head, then the next, until the queue is empty; the
  // writer refers to itself until then.
  auto state = &s;
  auto writer = std::make_shared<std::function<void(std::shared_ptr<const std::string>)>>();
  *writer = [self, state, io, writer](std::shared_ptr<const std::string> data) {
    io->WriteAll(data, [self, state, writer](const Exception::YError* error) {
      YSession::State& s = *state;
      if (error) {
        End(self, s, *error);
        std::lock_guard<std::mutex> lock(s.mutex);
        s.writing = false;
        *writer = nullptr;
        return;
      }
      std::shared_ptr<const std::string> following;
      {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (!s.output.empty()) {
          s.output_bytes -= s.output.front()->size();
          s.output.pop_front();
        }
        if (s.output.empty() || !s.connected) {
          s.writing = false;
          *writer = nullptr;
          return;
        }
        following = s.output.front();
      }
      (*writer)(following);
    });
  };
  (*writer)(next);
}

void SessionOps::End(const std::shared_ptr<YSession>& self, YSession::State& s, const Exception::YError& why) {
  std::map<uint64_t, YSession::Completion> pending;
  std::shared_ptr<YIoBase> io;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.ended) return;
    s.ended = true;
    s.connected = false;
    s.error = why;
    pending.swap(s.pending);
    s.output.clear();
    s.output_bytes = 0;
    io = s.io;
  }
  if (io) io->Close();
  const Exception::YError e =
      why.GetCcode() == kNoSession
          ? why
          : NoSession("session ended: " + why.GetDescription() + (why.GetInfo().empty() ? "" : " (" + why.GetInfo() + ")"),
                      "End");
  for (auto& [id, completion] : pending) {
    if (completion) completion(self, nullptr, &e);
  }
}

}  // namespace

}  // namespace Qel::IO
