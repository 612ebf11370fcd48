// Cloud verb "build": Uploads build to Zarnu and optionally updates build slot with new token
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

class YBuildVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YBuildVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
