#include "Verbs/Cloud/YPutVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YPutVerb::YPutVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "put", "Uploads a file to the cloud",
                {
       {"r", "Recursive list"},
                },
                {"local path", "cloud path"}, false),
      module_(module) {}

void YPutVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YPutVerb");
}

}  // namespace Cloud
