// Cloud verb "put": Uploads a file to the cloud
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

class YPutVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YPutVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
