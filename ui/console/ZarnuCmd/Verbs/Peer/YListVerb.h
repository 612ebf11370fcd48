// Peer verb "list": Discovers zarnu peers on the network
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Peer {

class YPeerVerbModule;

class YListVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YListVerb(Qel::Application::YConsoleMain* app, YPeerVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YPeerVerbModule* module_;
};

}  // namespace Peer
