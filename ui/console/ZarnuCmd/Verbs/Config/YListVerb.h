// Config verb "list": Lists one or more configuration options
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Config {

class YConfigVerbModule;

class YListVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YListVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YConfigVerbModule* module_;
};

}  // namespace Config
