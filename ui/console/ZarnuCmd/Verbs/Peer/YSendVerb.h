// Peer verb "send": Sends a file to a peer
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Peer {

class YPeerVerbModule;

class YSendVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YSendVerb(Qel::Application::YConsoleMain* app, YPeerVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YPeerVerbModule* module_;
};

}  // namespace Peer
