#include "Verbs/Overlay/YRemoveVerb.h"

#include "NotAvailable.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YRemoveVerb::YRemoveVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "remove", "Un-installs the Zarnu overlay from this machine",
                {
                },
                {}, false),
      module_(module) {}

void YRemoveVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Overlay/YRemoveVerb");
}

}  // namespace Overlay
