// Cloud verb "checkAuth": Validates an authentication token
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

class YCheckAuthVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YCheckAuthVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
