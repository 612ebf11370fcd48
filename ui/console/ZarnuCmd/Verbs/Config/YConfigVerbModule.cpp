#include "Verbs/Config/YConfigVerbModule.h"

#include <memory>

#include "Verbs/Config/YGetVerb.h"
#include "Verbs/Config/YListVerb.h"
#include "Verbs/Config/YPutVerb.h"
#include "Verbs/Config/YDefaultVerb.h"

namespace Config {

YConfigVerbModule::YConfigVerbModule(Qel::Application::YConsoleMain* app)
    : YZarnuCmdVerbModule(app, "Config", "Muck with your Zarnu agent configuration, including hidden advanced options\n *WARNING* Modifying entries in here can break zarnu!",
                          {
                          }) {
  RegisterVerb(std::make_shared<YGetVerb>(app, this));
  RegisterVerb(std::make_shared<YListVerb>(app, this));
  RegisterVerb(std::make_shared<YPutVerb>(app, this));
  RegisterVerb(std::make_shared<YDefaultVerb>(app, this));
}

void YConfigVerbModule::Prepare(unsigned int& exitCode) {}

}  // namespace Config
