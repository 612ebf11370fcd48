#include "Verbs/Config/YDefaultVerb.h"

#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Config/YConfigVerbModule.h"

namespace Config {

YDefaultVerb::YDefaultVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module)
    : YVerbBase(app, module, "default", "Resets the configuration to default",
                {
                },
                {"option name"}, false),
      module_(module) {}

void YDefaultVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  const Qel::YString name = GetArgument("option name");
  const Qel::YString value = module_->GetOptionDefault(name);
  module_->PutOption(name, value);
  GetApp()->GetLogger() << "Successfully applied option" << Qel::Log::Ctl::EndLine;
}

}  // namespace Config
