// Config verb "get": Gets a configuration option
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Config {

class YConfigVerbModule;

class YGetVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YGetVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YConfigVerbModule* module_;
};

}  // namespace Config
