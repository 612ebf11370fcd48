#include "Verbs/Cloud/YUndeleteVerb.h"

#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YUndeleteVerb::YUndeleteVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "undelete", "Undeletes a directory or file",
                {
                },
                {"path"}, false),
      module_(module) {}

void YUndeleteVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  module_->Login();
  const Qel::YString path = GetArgument("path");
  module_->GetApi().Undelete(path, 0xFFFFFFFFFFFFFFFFull);  // the latest deleted state
  GetApp()->GetLogger() << "Successfully restored \"" << path << "\"" << Qel::Log::Ctl::EndLine;
}

}  // namespace Cloud
