// Debug verb "feedback": Send feedback
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Debug {

class YDebugVerbModule;

class YFeedbackVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YFeedbackVerb(Qel::Application::YConsoleMain* app, YDebugVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YDebugVerbModule* module_;
};

}  // namespace Debug
