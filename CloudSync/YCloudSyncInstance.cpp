#include "CloudSync/YCloudSyncInstance.h"

namespace CloudSync {

YCloudSyncInstance::YCloudSyncInstance(const Qel::YString& instanceName) : YInstance(kClassName, instanceName) {}

YCloudSyncInstance::~YCloudSyncInstance() { Stop(); }

void YCloudSyncInstance::Start(const Qel::YString& options) {
  registrar_ = std::make_shared<YPeerRegistrar>(YPeerRegistrar::Options{});
}

void YCloudSyncInstance::Stop() {
  if (registrar_) registrar_->Stop();
}

}  // namespace CloudSync

// The module entry point the runtime looks up in libCloudSync.so.
extern "C" __attribute__((visibility("default"))) int qel_module_create_instance(const char* className,
                                                                                 const char* instanceName,
                                                                                 Qel::Module::YInstance** out) {
  return Qel::Module::CreateInstanceOf<CloudSync::YCloudSyncInstance>(CloudSync::YCloudSyncInstance::kClassName, className,
                                                                      instanceName, out);
}
