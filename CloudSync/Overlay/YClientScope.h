// OverlayClient::YClientScope: Initialize on construction (empty callbacks),
// Deinitialize on destruction, whichever way the scope is left. The verbs that
// talk to the agent hold one for their whole run.
//
// Thread-safety: as Initialize and Deinitialize; the client is process-wide,
// so two scopes must not overlap.
#pragma once

#include "CloudSync/Overlay/OverlayClient.h"
#include "Qel/YString.h"

namespace OverlayClient {

class YClientScope {
 public:
  explicit YClientScope(const Qel::YString& dataPath) { Initialize(dataPath, nullptr, nullptr); }
  ~YClientScope() { Deinitialize(); }
  YClientScope(const YClientScope&) = delete;
  YClientScope& operator=(const YClientScope&) = delete;
};

}  // namespace OverlayClient
