#include "Verbs/Debug/YDebugVerbModule.h"

#include <memory>

#include "Verbs/Debug/YMsgVerb.h"
#include "Verbs/Debug/YFeedbackVerb.h"
#include "Verbs/Debug/YResyncVerb.h"

namespace Debug {

YDebugVerbModule::YDebugVerbModule(Qel::Application::YConsoleMain* app)
    : YZarnuCmdVerbModule(app, "Debug", "Utilities to help figure out what went wrong with Zarnu",
                          {
                          }) {
  RegisterVerb(std::make_shared<YMsgVerb>(app, this));
  RegisterVerb(std::make_shared<YFeedbackVerb>(app, this));
  RegisterVerb(std::make_shared<YResyncVerb>(app, this));
}

void YDebugVerbModule::Prepare(unsigned int& exitCode) {}

}  // namespace Debug
