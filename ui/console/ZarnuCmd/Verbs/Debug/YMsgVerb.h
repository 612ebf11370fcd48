// Debug verb "msg": Enables/Disables message log output in Zarnu agent
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Debug {

class YDebugVerbModule;

class YMsgVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YMsgVerb(Qel::Application::YConsoleMain* app, YDebugVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YDebugVerbModule* module_;
};

}  // namespace Debug
