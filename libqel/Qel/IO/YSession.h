// Qel::IO::YSession: a conversation of YCommands over one transport.
//
// Allocate(io) attaches the session to a connected transport and starts
// reading frames. Requests get ids from the session; replies are matched to
// them by id. A request that arrives from the peer goes to the request
// handler; its returned command (or, when it raises, an error reply made from
// the YError) is sent back with the request's id. Handlers run on the
// service's threads, one request at a time per session (the next frame of a
// session is read only after the handler returned), so a slow handler delays
// its own peer only.
//
// A frame that cannot be decoded, or is larger than the limit, ends the
// session: the transport is closed, IsConnected turns false, GetSessionError
// tells why, and every pending request fails with code 88.
//
// Lifetime: sessions are held by std::shared_ptr; the transport's completions
// keep the session alive while they are pending. Release() closes the
// transport and fails pending requests; it is idempotent.
//
// Thread-safety: every operation may be called from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "Qel/Exception/YError.h"
#include "Qel/IO/YCommand.h"
#include "Qel/IO/YFrame.h"
#include "Qel/IO/YIo.h"
#include "Qel/Time/YTime.h"

namespace Qel::IO {

// Error code of a request whose session is gone (or never was).
inline constexpr unsigned int kNoSession = 88;

class YSession : public std::enable_shared_from_this<YSession> {
 public:
  // Returns the reply to `request`; may raise a YError, which becomes an
  // error reply. A null return sends an empty reply.
  using RequestHandler = std::function<YCommandPtr(std::shared_ptr<YSession> session, YCommandPtr request)>;
  // `reply` is null when `error` is set. An error reply from the peer arrives
  // as `error` too.
  using Completion =
      std::function<void(std::shared_ptr<YSession> session, YCommandPtr reply, const Exception::YError* error)>;

  explicit YSession(RequestHandler handler, uint32_t maxFrameBody = kMaxFrameBody);
  virtual ~YSession();
  YSession(const YSession&) = delete;
  YSession& operator=(const YSession&) = delete;

  void Allocate(std::shared_ptr<YIoBase> io);
  void Release();

  bool IsConnected() const;
  // Why the session ended (code 0 while it is connected).
  Exception::YError GetSessionError() const;
  std::shared_ptr<YIoBase> GetIo() const;

  // Sends `request` and waits up to `timeout` (Infinity: no limit) for its
  // reply. Raises: kNoSession when the session is or becomes disconnected,
  // ETIMEDOUT (sub-code 3) when the time passes, the peer's error when the
  // reply carries one. Must not be called from a request handler of the same
  // session with an infinite timeout.
  YCommandPtr ProcessRequest(YCommandPtr request, Time::YDuration timeout);
  // Sends `request`; `completion` (may be empty) runs once on a service
  // thread with the reply or the error.
  void ProcessRequestAsync(YCommandPtr request, Completion completion);

  // Counters for logs and tests.
  uint64_t GetRequestsSent() const;
  uint64_t GetRequestsHandled() const;

  // The session's shared state; opaque outside the implementation.
  struct State;

 private:
  std::shared_ptr<State> state_;
};

using YSessionPtr = std::shared_ptr<YSession>;

}  // namespace Qel::IO
