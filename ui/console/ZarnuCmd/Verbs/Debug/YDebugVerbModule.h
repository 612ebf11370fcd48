// The "Debug" verb module of zarnucmd.
#pragma once

#include "YZarnuCmdVerbModule.h"

namespace Debug {

class YDebugVerbModule : public YZarnuCmdVerbModule {
 public:
  explicit YDebugVerbModule(Qel::Application::YConsoleMain* app);
  void Prepare(unsigned int& exitCode) override;
};

}  // namespace Debug
