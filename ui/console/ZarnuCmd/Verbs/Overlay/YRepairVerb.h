// Overlay verb "repair": Repairs the installation of the overlay on this machine
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Overlay {

class YOverlayVerbModule;

class YRepairVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YRepairVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YOverlayVerbModule* module_;
};

}  // namespace Overlay
