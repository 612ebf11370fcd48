// Debug verb "resync": resyncs shares or performs a hard reset of share list
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Debug {

class YDebugVerbModule;

class YResyncVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YResyncVerb(Qel::Application::YConsoleMain* app, YDebugVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YDebugVerbModule* module_;
};

}  // namespace Debug
