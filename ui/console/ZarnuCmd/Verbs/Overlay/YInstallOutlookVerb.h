// Overlay verb "installOutlookAddin": Installs the Zarnu Outlook addin lib on this machine, may require admin privileges
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Overlay {

class YOverlayVerbModule;

class YInstallOutlookVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YInstallOutlookVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YOverlayVerbModule* module_;
};

}  // namespace Overlay
