// OverlayClient::YOverlaySession: the session a context holds with its
// agent. It adds nothing to Qel::IO::YSession; it names the role, and its
// request handler is the context's ProcessAgentRequest.
#pragma once

#include "Qel/IO/YSession.h"

namespace OverlayClient {

class YOverlaySession : public Qel::IO::YSession {
 public:
  explicit YOverlaySession(RequestHandler handler) : YSession(std::move(handler)) {}
  ~YOverlaySession() override = default;
};

}  // namespace OverlayClient
