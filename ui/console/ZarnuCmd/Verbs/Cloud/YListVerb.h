// Cloud verb "ls": Lists a path (wild cards accepted)
#pragma once

#include <vector>

#include "CloudSync/YCloudApi.h"
#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

// Expands path arguments into the cloud entries they match, shared by "ls"
// and "link": one listing per argument (all its pages), built from
// `prepared`. Without `regex` the argument is the listing's path as given
// (the cloud expands wild cards); with `regex` its last component is the
// name filter and the rest the folder ("/" lists the root unfiltered).
// Entries come in argument order, and in listing order within an argument;
// an entry matched by two arguments appears twice.
std::vector<CloudSync::MetadataPtr> ExpandPaths(CloudSync::YCloudApi& api, const std::vector<Qel::YString>& paths,
                                                bool regex, const CloudSync::YCloudApi::ListParam& prepared);

class YListVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YListVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
