#include "Verbs/Cloud/YGetVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YGetVerb::YGetVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "get", "Gets a file",
                {
       {"r", "recurse"},
                },
                {"cloud path", "local path"}, false),
      module_(module) {}

void YGetVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YGetVerb");
}

}  // namespace Cloud
