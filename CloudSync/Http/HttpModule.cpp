// Loads libCloudSyncCurl.so from the folder that holds libCloudSync.so.
#include <dlfcn.h>

#include <mutex>

#include "CloudSync/Http/IHttpSession.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"

namespace CloudSync {

namespace {

using CreateFunction = IHttpSession* (*)();

CreateFunction LoadModule() {
  static std::once_flag once;
  static CreateFunction create = nullptr;
  static Qel::YString failure;
  std::call_once(once, [] {
    Dl_info self{};
    Qel::YString folder;
    if (dladdr(reinterpret_cast<void*>(&LoadModule), &self) != 0 && self.dli_fname != nullptr) {
      folder = Qel::File::RemoveFileFromPath(self.dli_fname);
    }
    const Qel::YString path = Qel::File::AppendPaths(folder, "libCloudSyncCurl.so");
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
      const char* why = dlerror();
      failure = "Could not load the HTTP module " + path + ": " + (why ? why : "unknown reason");
      return;
    }
    create = reinterpret_cast<CreateFunction>(dlsym(module, "zarnu_create_http_session"));
    if (create == nullptr) failure = "The HTTP module " + path + " has no zarnu_create_http_session";
  });
  if (create == nullptr) QEL_RAISE(213, 163, failure, "CloudSync/Http/HttpModule", "CreateHttpSession");
  return create;
}

}  // namespace

std::unique_ptr<IHttpSession> CreateHttpSession() { return std::unique_ptr<IHttpSession>(LoadModule()()); }

}  // namespace CloudSync
