// Cloud verb "mount": Mounts your cloud stuff as a read only volume locally.
#pragma once

#include "Qel/Application/YConsoleMain.h"

namespace Cloud {

class YCloudVerbModule;

class YMountVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YMountVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

 private:
  YCloudVerbModule* module_;
};

}  // namespace Cloud
