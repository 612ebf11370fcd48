#include "Verbs/Cloud/YListVerb.h"

#include "Qel/File/File.h"
#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

std::vector<CloudSync::MetadataPtr> ExpandPaths(CloudSync::YCloudApi& api, const std::vector<Qel::YString>& paths,
                                                bool regex, const CloudSync::YCloudApi::ListParam& prepared) {
  std::vector<CloudSync::MetadataPtr> matched;
  for (const Qel::YString& argument : paths) {
    CloudSync::YCloudApi::ListParam param = prepared;
    if (regex) {
      param.filter = argument == "/" ? Qel::YString() : Qel::File::GetFileFromPath(argument, "/");
      param.path = Qel::File::RemoveFileFromPath(argument, "/");
    } else {
      param.path = argument;
    }
    // A plain folder listing repeats the folder itself at the head of every
    // page; it is listed once.
    Qel::YString head;
    while (true) {
      CloudSync::YCloudApi::ListResult page = api.ListPath(param);
      auto first = page.entries.begin();
      if (param.cursor.empty()) {
        if (first != page.entries.end() && (*first)->path == param.path) head = (*first)->path;
      } else if (!head.empty() && first != page.entries.end() && (*first)->path == head) {
        ++first;
      }
      matched.insert(matched.end(), first, page.entries.end());
      if (!page.more) break;
      param.cursor = page.cursor;
    }
  }
  return matched;
}

YListVerb::YListVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "ls,dir,list", "Lists a path (wild cards accepted)",
                {
       {"d", "Include deleted"},
       {"e", "Include excludes"},
       {"r", "Recurse list"},
       {"regex", "Regex"},
       {"p", "Include parts"},
                },
                {"path..."}, false),
      module_(module) {}

void YListVerb::Execute(unsigned int& exitCode) {
  using Qel::Application::HasOption;
  using Qel::Log::Ctl;

  ParseParams(exitCode);
  module_->Login();

  const Qel::Application::OptionMap& options = GetOptions();
  CloudSync::YCloudApi::ListParam param;
  param.includeDeleted = HasOption(options, "d");
  param.includeExcludes = HasOption(options, "e");
  param.includeParts = HasOption(options, "p");
  param.partLimit = param.includeParts ? 0x40000000u : 0u;
  param.recurse = HasOption(options, "r");
  param.flag5 = true;
  param.flag6 = true;

  const std::vector<CloudSync::MetadataPtr> entries =
      ExpandPaths(module_->GetApi(), GetMultiArgument("path...", nullptr), HasOption(options, "regex"), param);

  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  if (entries.empty()) {
    out << "Empty" << Ctl::EndLine;
    return;
  }
  for (const CloudSync::MetadataPtr& entry : entries) {
    // "d- " / "-X ", the size right-aligned in 8 columns (blank for a
    // folder), then the entry's name.
    out << (entry->IsFolder() ? "d" : "-") << (entry->IsDeleted() ? "X " : "- ");
    out << Ctl::AlignRight << Qel::Log::Width(8);
    if (entry->IsFolder()) out << " ";
    else out << static_cast<double>(entry->size);
    out << " " << Qel::File::GetFileFromPath(entry->path, "/") << Ctl::EndLine;

    if (!param.includeParts || entry->parts.empty()) continue;
    for (const CloudSync::PartPtr& part : entry->parts) {
      out << "\t" << Ctl::AlignLeft << Qel::Log::Width(12) << Ctl::SizeNumbers << part->size << " "
          << part->fingerprint << Ctl::EndLine;
    }
    out << Ctl::EndLine;
  }
}

}  // namespace Cloud
