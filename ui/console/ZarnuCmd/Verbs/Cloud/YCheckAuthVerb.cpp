#include "Verbs/Cloud/YCheckAuthVerb.h"

#include "Qel/Exception/YError.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YCheckAuthVerb::YCheckAuthVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "checkAuth", "Validates an authentication token",
                {
                },
                {}, false),
      module_(module) {}

void YCheckAuthVerb::Execute(unsigned int& exitCode) {
  constexpr const char* kFile = "ui/console/ZarnuCmd/Verbs/Cloud/YCheckAuthVerb";
  ParseParams(exitCode);
  const Qel::YString& username = module_->GetUsername();
  if (username.empty() || module_->GetAuthToken().empty()) {
    QEL_RAISE(15, 55, "A username and authToken are required", kFile, "Execute");
  }
  // Unlike the module's Login, the user name must match exactly, letter case
  // included.
  const CloudSync::YCloudApi::LoginResult result = module_->GetApi().Login(module_->GetAuthToken());
  for (const Qel::YString& name : result.usernames) {
    if (name == username) {
      GetApp()->GetLogger() << module_->GetAuthToken() << Qel::Log::Ctl::EndLine;
      return;
    }
  }
  QEL_RAISE(15, 55, "Authentication token doesn't match username", kFile, "Execute");
}

}  // namespace Cloud
