// Overlay verb "removeOutlookAddin": Un-installs the Zarnu outlook addin from this machine
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Overlay {

class YOverlayVerbModule;

class YRemoveOutlookVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YRemoveOutlookVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YOverlayVerbModule* module_;
};

}  // namespace Overlay
