#include "Verbs/Overlay/YInstallOutlookVerb.h"

#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YInstallOutlookVerb::YInstallOutlookVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "installOutlookAddin", "Installs the Zarnu Outlook addin lib on this machine, may require admin privileges",
                {
                },
                {}, true),
      module_(module) {}

void YInstallOutlookVerb::Execute(unsigned int& exitCode) {
  module_->InstallOutlookAddin();
  GetApp()->GetLogger() << "Successfully installed Zarnu outlook addin on this machine" << Qel::Log::Ctl::EndLine;
}

}  // namespace Overlay
