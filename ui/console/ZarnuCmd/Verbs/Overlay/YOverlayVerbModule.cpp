#include "Verbs/Overlay/YOverlayVerbModule.h"

#include <memory>

#include "Verbs/Overlay/YRepairVerb.h"
#include "Verbs/Overlay/YInstallVerb.h"
#include "Verbs/Overlay/YRemoveVerb.h"
#include "Verbs/Overlay/YStatusVerb.h"
#include "Verbs/Overlay/YInstallOutlookVerb.h"
#include "Verbs/Overlay/YRemoveOutlookVerb.h"

namespace Overlay {

YOverlayVerbModule::YOverlayVerbModule(Qel::Application::YConsoleMain* app)
    : YZarnuCmdVerbModule(app, "Overlay", "Commandline options for the overlay, install, repair, remove, etc.",
                          {
                          }) {
  RegisterVerb(std::make_shared<YRepairVerb>(app, this));
  RegisterVerb(std::make_shared<YInstallVerb>(app, this));
  RegisterVerb(std::make_shared<YRemoveVerb>(app, this));
  RegisterVerb(std::make_shared<YStatusVerb>(app, this));
  RegisterVerb(std::make_shared<YInstallOutlookVerb>(app, this));
  RegisterVerb(std::make_shared<YRemoveOutlookVerb>(app, this));
}

void YOverlayVerbModule::Prepare(unsigned int& exitCode) {}

}  // namespace Overlay
