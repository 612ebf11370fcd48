#include "Verbs/Cloud/YCloudVerbModule.h"

#include <memory>

#include "Verbs/Cloud/YGetVerb.h"
#include "Verbs/Cloud/YLinkVerb.h"
#include "Verbs/Cloud/YListVerb.h"
#include "Verbs/Cloud/YMkdirVerb.h"
#include "Verbs/Cloud/YPutVerb.h"
#include "Verbs/Cloud/YRmVerb.h"
#include "Verbs/Cloud/YUndeleteVerb.h"
#include "Verbs/Cloud/YAuthClientVerb.h"
#include "Verbs/Cloud/YCheckAuthVerb.h"
#include "Verbs/Cloud/YBuildVerb.h"
#include "Verbs/Cloud/YMountVerb.h"

namespace Cloud {

YCloudVerbModule::YCloudVerbModule(Qel::Application::YConsoleMain* app)
    : YZarnuCmdVerbModule(app, "Cloud", "Muck with stuff in your cloud zarnu folder",
                          {
           {"username=", "Login to the cloud as this user"},
           {"password=", "Password for the login"},
           {"cloudAddress=", "Url to talk to "},
           {"authToken=", "Authentication token to login with"},
           {"debugOutput,debug", "Enable debug message masks"},
                          }) {
  RegisterVerb(std::make_shared<YGetVerb>(app, this));
  RegisterVerb(std::make_shared<YLinkVerb>(app, this));
  RegisterVerb(std::make_shared<YListVerb>(app, this));
  RegisterVerb(std::make_shared<YMkdirVerb>(app, this));
  RegisterVerb(std::make_shared<YPutVerb>(app, this));
  RegisterVerb(std::make_shared<YRmVerb>(app, this));
  RegisterVerb(std::make_shared<YUndeleteVerb>(app, this));
  RegisterVerb(std::make_shared<YLinkVerb>(app, this));
  RegisterVerb(std::make_shared<YAuthClientVerb>(app, this));
  RegisterVerb(std::make_shared<YCheckAuthVerb>(app, this));
  RegisterVerb(std::make_shared<YBuildVerb>(app, this));
  RegisterVerb(std::make_shared<YMountVerb>(app, this));
}

void YCloudVerbModule::Prepare(unsigned int& exitCode) {}

}  // namespace Cloud
