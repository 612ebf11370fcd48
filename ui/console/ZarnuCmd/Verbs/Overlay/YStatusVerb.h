// Overlay verb "status": Reports status of a path (wild cards are supported)
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Overlay {

class YOverlayVerbModule;

class YStatusVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YStatusVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YOverlayVerbModule* module_;
};

}  // namespace Overlay
