// The "Overlay" verb module of zarnucmd.
#pragma once

#include "YZarnuCmdVerbModule.h"

namespace Overlay {

class YOverlayVerbModule : public YZarnuCmdVerbModule {
 public:
  explicit YOverlayVerbModule(Qel::Application::YConsoleMain* app);
  void Prepare(unsigned int& exitCode) override;
};

}  // namespace Overlay
