#include "Verbs/Overlay/YRemoveOutlookVerb.h"

#include "NotAvailable.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YRemoveOutlookVerb::YRemoveOutlookVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "removeOutlookAddin", "Un-installs the Zarnu outlook addin from this machine",
                {
                },
                {}, true),
      module_(module) {}

void YRemoveOutlookVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Overlay/YRemoveOutlookVerb");
}

}  // namespace Overlay
