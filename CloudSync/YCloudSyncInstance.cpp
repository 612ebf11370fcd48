#include "CloudSync/YCloudSyncInstance.h"

#include <cstring>
#include <memory>

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
  if (out == nullptr || className == nullptr) return Qel::Module::kInvalidArgument;
  *out = nullptr;
  if (std::strcmp(className, CloudSync::YCloudSyncInstance::kClassName) != 0) return Qel::Module::kModuleRefused;
  *out = std::make_unique<CloudSync::YCloudSyncInstance>(instanceName ? instanceName : "").release();  // the runtime owns it now
  return 0;
}
