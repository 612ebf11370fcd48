#include "Verbs/Peer/YListVerb.h"

#include "NotAvailable.h"
#include "Verbs/Peer/YPeerVerbModule.h"

namespace Peer {

YListVerb::YListVerb(Qel::Application::YConsoleMain* app, YPeerVerbModule* module)
    : YVerbBase(app, module, "list", "Discovers zarnu peers on the network",
                {
                },
                {}, false),
      module_(module) {}

void YListVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Peer/YListVerb");
}

}  // namespace Peer
