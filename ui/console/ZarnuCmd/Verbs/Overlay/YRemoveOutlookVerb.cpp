#include "Verbs/Overlay/YRemoveOutlookVerb.h"

#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YRemoveOutlookVerb::YRemoveOutlookVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "removeOutlookAddin", "Un-installs the Zarnu outlook addin from this machine",
                {
                },
                {}, true),
      module_(module) {}

void YRemoveOutlookVerb::Execute(unsigned int& exitCode) {
  module_->RemoveOutlookAddin();
  GetApp()->GetLogger() << "Successfully un-installed Zarnu outlook addin from this machine" << Qel::Log::Ctl::EndLine;
}

}  // namespace Overlay
