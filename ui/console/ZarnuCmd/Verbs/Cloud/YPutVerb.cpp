#include "Verbs/Cloud/YPutVerb.h"

#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YPutVerb::YPutVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "put", "Uploads a file to the cloud",
                {
       {"r", "Recursive list"},
                },
                {"local path", "cloud path"}, false),
      module_(module) {}

void YPutVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  module_->Login();
  const bool recurse = Qel::Application::HasOption(GetOptions(), "r");
  const Qel::YString localPath = GetArgument("local path");
  const Qel::YString cloudPath = GetArgument("cloud path");
  module_->UploadAt(localPath, cloudPath, recurse, false);
}

}  // namespace Cloud
