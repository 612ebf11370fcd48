#include "Verbs/Cloud/YCheckAuthVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YCheckAuthVerb::YCheckAuthVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "checkAuth", "Validates an authentication token",
                {
                },
                {}, false),
      module_(module) {}

void YCheckAuthVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YCheckAuthVerb");
}

}  // namespace Cloud
