#include "Verbs/Config/YDefaultVerb.h"

#include "NotAvailable.h"
#include "Verbs/Config/YConfigVerbModule.h"

namespace Config {

YDefaultVerb::YDefaultVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module)
    : YVerbBase(app, module, "default", "Resets the configuration to default",
                {
                },
                {"option name"}, false),
      module_(module) {}

void YDefaultVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Config/YDefaultVerb");
}

}  // namespace Config
