#include "Verbs/Peer/YSendVerb.h"

#include "NotAvailable.h"
#include "Verbs/Peer/YPeerVerbModule.h"

namespace Peer {

YSendVerb::YSendVerb(Qel::Application::YConsoleMain* app, YPeerVerbModule* module)
    : YVerbBase(app, module, "send", "Sends a file to a peer",
                {
                },
                {"local path", "peer name"}, false),
      module_(module) {}

void YSendVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Peer/YSendVerb");
}

}  // namespace Peer
