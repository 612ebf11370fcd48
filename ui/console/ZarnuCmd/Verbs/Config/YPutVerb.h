// Config verb "put": Puts a configuration option
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Config {

class YConfigVerbModule;

class YPutVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YPutVerb(Qel::Application::YConsoleMain* app, YConfigVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YConfigVerbModule* module_;
};

}  // namespace Config
