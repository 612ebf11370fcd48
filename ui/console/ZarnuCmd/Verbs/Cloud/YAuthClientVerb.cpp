#include "Verbs/Cloud/YAuthClientVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YAuthClientVerb::YAuthClientVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "authClient", "Authenticates a user with a password",
                {
                },
                {}, false),
      module_(module) {}

void YAuthClientVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YAuthClientVerb");
}

}  // namespace Cloud
