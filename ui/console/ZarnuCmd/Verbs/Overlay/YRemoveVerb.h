// Overlay verb "remove": Un-installs the Zarnu overlay from this machine
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Overlay {

class YOverlayVerbModule;

class YRemoveVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YRemoveVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YOverlayVerbModule* module_;
};

}  // namespace Overlay
