#include "Verbs/Cloud/YBuildVerb.h"

#include "NotAvailable.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YBuildVerb::YBuildVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "build", "Uploads build to Zarnu and optionally updates build slot with new token",
                {
       {"json", "update build slot with new token"},
       {"debug", "prints request and response info to console"},
       {"folder=", "override dest folder name in <plat> directory"},
       {"todisk", "write created Zarnu url to a file in current directory"},
       {"retries=", "number of retries to make (in case of cloud errors) default: 0"},
       {"version=", "override version number used in json post"},
                },
                {"local_path", "build_slots", "plat"}, true),
      module_(module) {}

void YBuildVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Cloud/YBuildVerb");
}

}  // namespace Cloud
