#include "Verbs/Peer/YPeerVerbModule.h"

#include <memory>

#include "Verbs/Peer/YListVerb.h"
#include "Verbs/Peer/YSendVerb.h"

namespace Peer {

YPeerVerbModule::YPeerVerbModule(Qel::Application::YConsoleMain* app)
    : YZarnuCmdVerbModule(app, "Peer", "View and communicate with zarnu peers across the network",
                          {
                          }) {
  RegisterVerb(std::make_shared<YListVerb>(app, this));
  RegisterVerb(std::make_shared<YSendVerb>(app, this));
}

void YPeerVerbModule::Prepare(unsigned int& exitCode) {}

}  // namespace Peer
