#include "Verbs/Cloud/YLinkVerb.h"

#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Cloud/YCloudVerbModule.h"
#include "Verbs/Cloud/YListVerb.h"

namespace Cloud {

YLinkVerb::YLinkVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "link", "Gets a public link to one or more paths (wild cards accepted)",
                {
       {"t", "Token only"},
       {"regex", "Regex"},
                },
                {"path..."}, false),
      module_(module) {}

void YLinkVerb::Execute(unsigned int& exitCode) {
  using Qel::Application::HasOption;

  ParseParams(exitCode);
  module_->Login();
  const std::vector<Qel::YString> paths = GetMultiArgument("path...", nullptr);
  const bool regex = HasOption(GetOptions(), "regex");

  const std::vector<CloudSync::MetadataPtr> entries =
      ExpandPaths(module_->GetApi(), paths, regex, CloudSync::YCloudApi::ListParam());
  if (entries.empty()) return;  // nothing matched: no link, no output

  const CloudSync::YCloudApi::PublicLink link = module_->GetApi().CreatePublicLink(entries);
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  if (HasOption(GetOptions(), "t")) out << link.token << Qel::Log::Ctl::EndLine;
  else out << "Link: " << link.link << Qel::Log::Ctl::EndLine;
}

}  // namespace Cloud
