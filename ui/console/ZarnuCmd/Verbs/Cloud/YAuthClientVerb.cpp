#include "Verbs/Cloud/YAuthClientVerb.h"

#include "Qel/Exception/YError.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YAuthClientVerb::YAuthClientVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "authClient", "Authenticates a user with a password",
                {
                },
                {}, false),
      module_(module) {}

void YAuthClientVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  if (module_->GetUsername().empty() || module_->GetPassword().empty()) {
    QEL_RAISE(15, 55, "A username and password are required", "ui/console/ZarnuCmd/Verbs/Cloud/YAuthClientVerb",
              "Execute");
  }
  const CloudSync::YCloudApi::LoginResult result =
      module_->GetApi().Login(module_->GetUsername(), module_->GetPassword());
  GetApp()->GetLogger() << result.token << Qel::Log::Ctl::EndLine;
}

}  // namespace Cloud
