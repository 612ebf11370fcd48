#include "Verbs/Config/YGetVerb.h"

#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Config/YConfigVerbModule.h"

namespace Config {

YGetVerb::YGetVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module)
    : YVerbBase(app, module, "get", "Gets a configuration option",
                {
                },
                {"config name"}, false),
      module_(module) {}

void YGetVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  const Qel::YString name = GetArgument("config name");
  const Qel::YString value = module_->GetOption(name);
  GetApp()->GetLogger() << value << Qel::Log::Ctl::EndLine;
}

}  // namespace Config
