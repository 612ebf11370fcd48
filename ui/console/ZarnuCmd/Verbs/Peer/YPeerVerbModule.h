// The "Peer" verb module of zarnucmd.
#pragma once

#include "YZarnuCmdVerbModule.h"

namespace Peer {

class YPeerVerbModule : public YZarnuCmdVerbModule {
 public:
  explicit YPeerVerbModule(Qel::Application::YConsoleMain* app);
  void Prepare(unsigned int& exitCode) override;
};

}  // namespace Peer
