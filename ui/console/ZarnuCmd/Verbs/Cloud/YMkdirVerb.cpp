#include "Verbs/Cloud/YMkdirVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YMkdirVerb::YMkdirVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "mkdir", "Creates a directory",
                {
                },
                {"path"}, false),
      module_(module) {}

void YMkdirVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YMkdirVerb");
}

}  // namespace Cloud
