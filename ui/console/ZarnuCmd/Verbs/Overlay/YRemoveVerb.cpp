#include "Verbs/Overlay/YRemoveVerb.h"

#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

YRemoveVerb::YRemoveVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "remove", "Un-installs the Zarnu overlay from this machine",
                {
                },
                {}, false),
      module_(module) {}

void YRemoveVerb::Execute(unsigned int& exitCode) {
  module_->RemoveOverlay();
  GetApp()->GetLogger() << "Successfully un-installed Zarnu overlay from this machine" << Qel::Log::Ctl::EndLine;
}

}  // namespace Overlay
