#include "Verbs/Cloud/YMkdirVerb.h"

#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

YMkdirVerb::YMkdirVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "mkdir", "Creates a directory",
                {
                },
                {"path"}, false),
      module_(module) {}

void YMkdirVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  module_->Login();
  module_->GetApi().CreateDirectory(GetArgument("path"));
}

}  // namespace Cloud
