#include "Verbs/Peer/YPeerVerbModule.h"

#include <memory>
#include <utility>

#include "Verbs/Peer/YListVerb.h"
#include "Verbs/Peer/YSendVerb.h"

namespace Peer {

YPeerVerbModule::YPeerVerbModule(Qel::Application::YConsoleMain* app)
    : YZarnuCmdVerbModule(app, "Peer", "View and communicate with zarnu peers across the network", {}) {
  RegisterVerb(std::make_shared<YListVerb>(app, this));
  RegisterVerb(std::make_shared<YSendVerb>(app, this));
}

void YPeerVerbModule::Prepare(unsigned int& exitCode) {
  EnginePtr engine = EnginePtr::AllocateInstance(CloudSync::YCloudSyncInstance::kClassName, kEngineName, "");
  // Assignment releases what the member held before; the temporary's
  // reference passes to the member.
  engine_ = std::move(engine);
  GetRegistrar().Initialize();
}

CloudSync::YPeerRegistrar& YPeerVerbModule::GetRegistrar() const {
  std::shared_ptr<CloudSync::YPeerRegistrar> registrar = engine_->GetPeerRegistrar();
  if (!registrar) {
    QEL_RAISE(Qel::Module::kLogInstanceUse, Qel::Module::kEmptyHandle, EnginePtr::kLabel,
              Qel::Module::kInstanceSource, "operator->");
  }
  return *registrar;  // the engine keeps it while the module holds the engine
}

}  // namespace Peer
