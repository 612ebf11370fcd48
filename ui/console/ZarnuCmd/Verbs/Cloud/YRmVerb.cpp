#include "Verbs/Cloud/YRmVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YRmVerb::YRmVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "rm", "Removes a directory or file",
                {
                },
                {"path"}, false),
      module_(module) {}

void YRmVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YRmVerb");
}

}  // namespace Cloud
