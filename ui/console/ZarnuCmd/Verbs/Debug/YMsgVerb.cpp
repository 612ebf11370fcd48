#include "Verbs/Debug/YMsgVerb.h"

#include "NotAvailable.h"
#include "Verbs/Debug/YDebugVerbModule.h"

namespace Debug {

YMsgVerb::YMsgVerb(Qel::Application::YConsoleMain* app, YDebugVerbModule* module)
    : YVerbBase(app, module, "msg", "Enables/Disables message log output in Zarnu agent",
                {
       {"enable", "Enables one or more messages (comma seperated)"},
       {"disable", "Disables one or more messages (comma seperated)"},
       {"list", "Lists all available messages"},
                },
                {"msg..."}, false),
      module_(module) {}

void YMsgVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Debug/YMsgVerb");
}

}  // namespace Debug
