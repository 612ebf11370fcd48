// Cloud verb "mkdir": Creates a directory
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

class YMkdirVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YMkdirVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
