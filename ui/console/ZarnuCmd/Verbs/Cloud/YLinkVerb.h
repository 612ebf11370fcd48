// Cloud verb "link": Gets a public link to one or more paths (wild cards accepted)
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

class YLinkVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YLinkVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
