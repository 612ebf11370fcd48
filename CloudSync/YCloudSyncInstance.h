// CloudSync::YCloudSyncInstance: the sync-engine module instance ("CloudSync")
// that programs allocate at run time with qel_instance_alloc. Today it holds
// the engine's peer registrar, which scans without announcing (running
// agents announce; a scanning program only asks).
//
// Start() makes the registrar (not yet listening: the owner calls its
// Initialize()); Stop() stops it. Thread-safety: GetPeerRegistrar may be
// called from any thread while the instance lives.
#pragma once

#include <memory>

#include "CloudSync/Peer/YPeerRegistrar.h"
#include "Qel/Module/YInstance.h"

namespace CloudSync {

class YCloudSyncInstance : public Qel::Module::YInstance {
 public:
  static constexpr const char* kClassName = "CloudSync";

  explicit YCloudSyncInstance(const Qel::YString& instanceName);
  ~YCloudSyncInstance() override;

  void Start(const Qel::YString& options) override;
  void Stop() override;

  // The registrar, or nullptr before Start.
  std::shared_ptr<YPeerRegistrar> GetPeerRegistrar() const { return registrar_; }
  // The registrar's peer-list-changed signal. REQUIRES: started.
  boost::signals2::signal<void()>& GetPeerListChangedSignal() { return registrar_->GetPeerListChangedSignal(); }

 private:
  std::shared_ptr<YPeerRegistrar> registrar_;
};

}  // namespace CloudSync
