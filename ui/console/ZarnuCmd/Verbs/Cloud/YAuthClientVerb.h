// Cloud verb "authClient": Authenticates a user with a password
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

class YAuthClientVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YAuthClientVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
