// Cloud verb "get": Gets a file
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

class YGetVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YGetVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
