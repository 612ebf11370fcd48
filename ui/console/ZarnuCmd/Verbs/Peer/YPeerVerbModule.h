// The "Peer" verb module of zarnucmd: finds the Zarnu clients on the local
// network through a sync-engine instance ("ZarnuCmd Engine") that the module
// starts inside the process. The engine is made in Prepare and released when
// the module goes (stopped and destroyed when the module held the last
// reference).
#pragma once

#include "CloudSync/YCloudSyncInstance.h"
#include "Qel/Module/YInstanceClassPtr.h"
#include "YZarnuCmdVerbModule.h"

namespace Peer {

class YPeerVerbModule : public YZarnuCmdVerbModule {
 public:
  using EnginePtr = Qel::Module::YInstanceClassPtr<CloudSync::YCloudSyncInstance>;
  static constexpr const char* kEngineName = "ZarnuCmd Engine";

  explicit YPeerVerbModule(Qel::Application::YConsoleMain* app);
  // Allocates the engine and starts its peer registrar listening.
  void Prepare(unsigned int& exitCode) override;

  // The engine's registrar. Raises code 55 (log type 15, "operator->") when
  // the engine or its registrar is missing.
  CloudSync::YPeerRegistrar& GetRegistrar() const;

 private:
  EnginePtr engine_;
};

}  // namespace Peer
