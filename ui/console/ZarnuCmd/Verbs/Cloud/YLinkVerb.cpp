#include "Verbs/Cloud/YLinkVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YLinkVerb::YLinkVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "link", "Gets a public link to one or more paths (wild cards accepted)",
                {
       {"t", "Token only"},
       {"regex", "Regex"},
                },
                {"path..."}, false),
      module_(module) {}

void YLinkVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YLinkVerb");
}

}  // namespace Cloud
