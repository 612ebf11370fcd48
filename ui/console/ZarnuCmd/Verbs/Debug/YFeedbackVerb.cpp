#include "Verbs/Debug/YFeedbackVerb.h"

#include "NotAvailable.h"
#include "Verbs/Debug/YDebugVerbModule.h"

namespace Debug {

YFeedbackVerb::YFeedbackVerb(Qel::Application::YConsoleMain* app, YDebugVerbModule* module)
    : YVerbBase(app, module, "feedback", "Send feedback",
                {
       {"message=", "Message for feedback"},
                },
                {}, false),
      module_(module) {}

void YFeedbackVerb::Execute(unsigned int& exitCode) {
  RaiseNotAvailableYet(*this, "ui/console/ZarnuCmd/Verbs/Debug/YFeedbackVerb");
}

}  // namespace Debug
