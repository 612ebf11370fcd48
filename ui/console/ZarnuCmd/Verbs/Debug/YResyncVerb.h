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
  // "resync_share_list": rebuild the share list from the cloud's.
  static void ResyncShares(YDebugVerbModule& module);
  // "resync_all": the full reset.
  static void ResyncAll(YDebugVerbModule& module);

  YDebugVerbModule* module_;
};

}  // namespace Debug
