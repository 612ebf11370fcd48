// Peer verb "list": Discovers zarnu peers on the network. Asks the network
// who is there once a second and prints the whole peer list each time it
// changes, until a key is pressed (a line, when standard input is not a
// terminal).
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Peer {

class YPeerVerbModule;

class YListVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YListVerb(Qel::Application::YConsoleMain* app, YPeerVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  // The slot of the peer-list-changed signal; runs on the engine's thread.
  void PrintPeers();

  YPeerVerbModule* module_;
};

}  // namespace Peer
