// Config verb "default": Resets the configuration to default
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Config {

class YConfigVerbModule;

class YDefaultVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YDefaultVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YConfigVerbModule* module_;
};

}  // namespace Config
