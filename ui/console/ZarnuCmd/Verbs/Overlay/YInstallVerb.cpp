#include "Verbs/Overlay/YInstallVerb.h"

#include "NotAvailable.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YInstallVerb::YInstallVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "install", "Installs the Zarnu overlay lib on this machine, may require admin privileges",
                {
                },
                {}, false),
      module_(module) {}

void YInstallVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Overlay/YInstallVerb");
}

}  // namespace Overlay
