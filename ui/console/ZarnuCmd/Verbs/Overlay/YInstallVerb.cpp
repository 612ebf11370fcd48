#include "Verbs/Overlay/YInstallVerb.h"

#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YInstallVerb::YInstallVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "install", "Installs the Zarnu overlay lib on this machine, may require admin privileges",
                {
                },
                {}, false),
      module_(module) {}

void YInstallVerb::Execute(unsigned int& exitCode) {
  module_->InstallOverlay();
  GetApp()->GetLogger() << "Successfully installed Zarnu overlay on this machine" << Qel::Log::Ctl::EndLine;
}

}  // namespace Overlay
