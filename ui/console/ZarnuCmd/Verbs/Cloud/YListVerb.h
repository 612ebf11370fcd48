// Cloud verb "ls": Lists a path (wild cards accepted)
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

class YListVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YListVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
