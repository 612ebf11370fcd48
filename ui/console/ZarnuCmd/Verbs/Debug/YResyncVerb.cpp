#include "Verbs/Debug/YResyncVerb.h"

#include "NotAvailable.h"
#include "Verbs/Debug/YDebugVerbModule.h"

namespace Debug {

YResyncVerb::YResyncVerb(Qel::Application::YConsoleMain* app, YDebugVerbModule* module)
    : YVerbBase(app, module, "resync", "resyncs shares or performs a hard reset of share list",
                {
       {"shares", "Replace local share list with shares from cloud"},
                },
                {}, false),
      module_(module) {}

void YResyncVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Debug/YResyncVerb");
}

}  // namespace Debug
