#include "Verbs/Overlay/YRepairVerb.h"

#include "NotAvailable.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YRepairVerb::YRepairVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "repair", "Repairs the installation of the overlay on this machine",
                {
                },
                {}, false),
      module_(module) {}

void YRepairVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Overlay/YRepairVerb");
}

}  // namespace Overlay
