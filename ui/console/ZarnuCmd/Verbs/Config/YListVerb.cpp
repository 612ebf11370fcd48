#include "Verbs/Config/YListVerb.h"

#include "NotAvailable.h"
#include "Verbs/Config/YConfigVerbModule.h"

namespace Config {

YListVerb::YListVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module)
    : YVerbBase(app, module, "list", "Lists one or more configuration options",
                {
                },
                {}, false),
      module_(module) {}

void YListVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Config/YListVerb");
}

}  // namespace Config
