// Peer verb "send": Sends a file to a peer. For now it only checks its
// command line ("local path" and "peer name") and returns.
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Peer {

class YPeerVerbModule;

class YSendVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YSendVerb(Qel::Application::YConsoleMain* app, YPeerVerbModule* module);
  void Execute(unsigned int& exitCode) override;
};

}  // namespace Peer
