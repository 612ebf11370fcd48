// Cloud verb "undelete": Undeletes a directory or file
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

class YUndeleteVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YUndeleteVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
