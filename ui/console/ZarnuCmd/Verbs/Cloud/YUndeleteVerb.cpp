#include "Verbs/Cloud/YUndeleteVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YUndeleteVerb::YUndeleteVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "undelete", "Undeletes a directory or file",
                {
                },
                {"path"}, false),
      module_(module) {}

void YUndeleteVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YUndeleteVerb");
}

}  // namespace Cloud
