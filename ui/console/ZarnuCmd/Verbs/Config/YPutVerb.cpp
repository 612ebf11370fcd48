#include "Verbs/Config/YPutVerb.h"

#include "NotAvailable.h"
#include "Verbs/Config/YConfigVerbModule.h"

namespace Config {

YPutVerb::YPutVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module)
    : YVerbBase(app, module, "put", "Puts a configuration option",
                {
                },
                {"option name", "option value"}, false),
      module_(module) {}

void YPutVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Config/YPutVerb");
}

}  // namespace Config
