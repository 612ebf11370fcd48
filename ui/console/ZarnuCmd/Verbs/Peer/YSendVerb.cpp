#include "Verbs/Peer/YSendVerb.h"

#include "Verbs/Peer/YPeerVerbModule.h"

namespace Peer {

YSendVerb::YSendVerb(Qel::Application::YConsoleMain* app, YPeerVerbModule* module)
    : YVerbBase(app, module, "send", "Sends a file to a peer", {}, {"local path", "peer name"}, false) {}

// Checks that both words are there and returns: sending is not offered yet,
// so nothing goes over the network.
void YSendVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  GetArgument("local path");  // a missing word raises code 47 naming it
  GetArgument("peer name");
}

}  // namespace Peer
