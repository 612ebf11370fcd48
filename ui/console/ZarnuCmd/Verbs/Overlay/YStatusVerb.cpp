#include "Verbs/Overlay/YStatusVerb.h"

#include "NotAvailable.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YStatusVerb::YStatusVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "status", "Reports status of a path (wild cards are supported)",
                {
       {"w,watch", "Continually watch path for changes for the specified number of milliseconds (default to 5000)"},
       {"d,detailed", "Shows detailed status"},
                },
                {"path..."}, false),
      module_(module) {}

void YStatusVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Overlay/YStatusVerb");
}

}  // namespace Overlay
