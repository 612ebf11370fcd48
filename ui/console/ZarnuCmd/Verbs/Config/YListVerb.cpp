#include "Verbs/Config/YListVerb.h"

#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Config/YConfigVerbModule.h"

namespace Config {

YListVerb::YListVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module)
    : YVerbBase(app, module, "list", "Lists one or more configuration options",
                {
                },
                {}, false),
      module_(module) {}

void YListVerb::Execute(unsigned int& exitCode) {
  // The listing takes no words: anything after the verb is ignored.
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  out << " Options and their values: \n" << Qel::Log::Ctl::EndLine;
  for (const auto& [name, entry] : module_->GetOptionTable()) {
    const Qel::YString value = module_->GetOption(name);
    out << Qel::Log::Ctl::AlignLeft << "   " << Qel::Log::Width(30) << name << Qel::Log::Width(10) << value
        << Qel::Log::Ctl::EndLine;
  }
}

}  // namespace Config
