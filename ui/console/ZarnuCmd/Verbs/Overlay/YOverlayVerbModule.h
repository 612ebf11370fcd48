// The "Overlay" verb module of zarnucmd. The command line does no overlay
// work itself: it records the overlay's state ("csmOverlay") in the
// configuration database and then replaces itself with the agent executable
// (ZarnuAgent beside zarnucmd), started with one switch that names the job.
// The agent's exit status becomes the command's.
#pragma once

#include "CloudSync/YConfigDb.h"
#include "Qel/YString.h"
#include "YZarnuCmdVerbModule.h"

namespace Overlay {

class YOverlayVerbModule : public YZarnuCmdVerbModule {
 public:
  explicit YOverlayVerbModule(Qel::Application::YConsoleMain* app);
  // Initialises the configuration database.
  void Prepare(unsigned int& exitCode) override;

  // Sets "csmOverlay" to enabled, then runs the agent with "-installOverlay".
  void InstallOverlay();
  // Sets "csmOverlay" to disabled, then runs the agent with "-removeOverlay".
  void RemoveOverlay();
  // Run the agent with "-installOutlookAddin" / "-removeOutlookAddin"; the
  // database is not touched.
  void InstallOutlookAddin();
  void RemoveOutlookAddin();

  // Replaces the running process with the agent from path map 3, passing
  // `agentSwitch` as its only argument. Returns only when the replacement
  // reports success without happening; otherwise raises the system's error
  // number (log type 198, sub-code 3) with the agent's path as info. The agent
  // runs with the caller's rights: there is no separate elevation step.
  void ExecuteZarnuAgentWithArgsElevated(const Qel::YString& agentSwitch);

  CloudSync::YConfigDb& GetConfigDb() { return config_db_; }

 private:
  CloudSync::YConfigDb config_db_;
};

}  // namespace Overlay
