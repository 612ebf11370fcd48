// Overlay verb "install": Installs the Zarnu overlay lib on this machine, may require admin privileges
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Overlay {

class YOverlayVerbModule;

class YInstallVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YInstallVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YOverlayVerbModule* module_;
};

}  // namespace Overlay
