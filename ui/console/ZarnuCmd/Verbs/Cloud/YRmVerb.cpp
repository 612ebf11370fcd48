#include "Verbs/Cloud/YRmVerb.h"

#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YRmVerb::YRmVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "rm", "Removes a directory or file",
                {
                },
                {"path"}, false),
      module_(module) {}

void YRmVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  module_->Login();
  module_->GetApi().DeleteFile(GetArgument("path"));
}

}  // namespace Cloud
