#include "Verbs/Cloud/YGetVerb.h"

#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YGetVerb::YGetVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "get", "Gets a file",
                {
       {"r", "recurse"},
                },
                {"cloud path", "local path"}, false),
      module_(module) {}

void YGetVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  module_->Login();
  const bool recurse = Qel::Application::HasOption(GetOptions(), "r");
  const Qel::YString cloudPath = GetArgument("cloud path");
  const Qel::YString localPath = GetArgument("local path");
  module_->DownloadAt(cloudPath, localPath, recurse, false);
}

}  // namespace Cloud
