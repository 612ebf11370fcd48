#include "Verbs/Config/YGetVerb.h"

#include "NotAvailable.h"
#include "Verbs/Config/YConfigVerbModule.h"

namespace Config {

YGetVerb::YGetVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module)
    : YVerbBase(app, module, "get", "Gets a configuration option",
                {
                },
                {"config name"}, false),
      module_(module) {}

void YGetVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Config/YGetVerb");
}

}  // namespace Config
