#include "Verbs/Overlay/YInstallOutlookVerb.h"

#include "NotAvailable.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YInstallOutlookVerb::YInstallOutlookVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "installOutlookAddin", "Installs the Zarnu Outlook addin lib on this machine, may require admin privileges",
                {
                },
                {}, true),
      module_(module) {}

void YInstallOutlookVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Overlay/YInstallOutlookVerb");
}

}  // namespace Overlay
