#include "Verbs/Cloud/YMountVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YMountVerb::YMountVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "mount", "Mounts your cloud stuff as a read only volume locally. \n          Requires dokan 0.6.0 (Windows), osxfuse 2.5.5 (OSX) and fuse 2.8.X (Linux) ",
                {
                },
                {"Cloud path (e.g. /)", "Local path (e.g. ~/CloudMount | <drive letter>)"}, false),
      module_(module) {}

void YMountVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YMountVerb");
}

}  // namespace Cloud
