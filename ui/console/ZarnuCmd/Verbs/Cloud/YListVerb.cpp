#include "Verbs/Cloud/YListVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YListVerb::YListVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "ls,dir,list", "Lists a path (wild cards accepted)",
                {
       {"d", "Include deleted"},
       {"e", "Include excludes"},
       {"r", "Recurse list"},
       {"regex", "Regex"},
       {"p", "Include parts"},
                },
                {"path..."}, false),
      module_(module) {}

void YListVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YListVerb");
}

}  // namespace Cloud
