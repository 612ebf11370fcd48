// The "Config" verb module of zarnucmd.
#pragma once

#include "YZarnuCmdVerbModule.h"

namespace Config {

class YConfigVerbModule : public YZarnuCmdVerbModule {
 public:
  explicit YConfigVerbModule(Qel::Application::YConsoleMain* app);
  void Prepare(unsigned int& exitCode) override;
};

}  // namespace Config
