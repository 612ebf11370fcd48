#include "Verbs/Config/YPutVerb.h"

#include "CloudSync/Overlay/OverlayClient.h"
#include "CloudSync/Overlay/YClientScope.h"
#include "Qel/File/File.h"
#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Config/YConfigVerbModule.h"

namespace Config {

YPutVerb::YPutVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module)
    : YVerbBase(app, module, "put", "Puts a configuration option",
                {
                },
                {"option name", "option value"}, false),
      module_(module) {}

void YPutVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  const Qel::YString value = GetArgument("option value");
  const Qel::YString name = GetArgument("option name");
  {
    OverlayClient::YClientScope client(Qel::File::GetPathMap(Qel::File::kMapData));
    module_->PutOption(name, value);
  }
  GetApp()->GetLogger() << "Successfully applied option" << Qel::Log::Ctl::EndLine;
}

}  // namespace Config
