#include "Verbs/Overlay/YRepairVerb.h"

#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YRepairVerb::YRepairVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "repair", "Repairs the installation of the overlay on this machine",
                {
                },
                {}, false),
      module_(module) {}

void YRepairVerb::Execute(unsigned int& exitCode) {
  // With a working agent the removal never returns: the agent then runs the
  // removal and the install half is not reached.
  module_->RemoveOverlay();
  module_->InstallOverlay();
  GetApp()->GetLogger() << "Successfully repaired Zarnu overlay" << Qel::Log::Ctl::EndLine;
}

}  // namespace Overlay
