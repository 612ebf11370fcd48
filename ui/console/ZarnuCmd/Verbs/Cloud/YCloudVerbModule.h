// The "Cloud" verb module of zarnucmd.
#pragma once

#include "YZarnuCmdVerbModule.h"

namespace Cloud {

class YCloudVerbModule : public YZarnuCmdVerbModule {
 public:
  explicit YCloudVerbModule(Qel::Application::YConsoleMain* app);
  void Prepare(unsigned int& exitCode) override;
};

}  // namespace Cloud
