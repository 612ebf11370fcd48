#include "Verbs/Cloud/YMountVerb.h"

#include "CloudMount/YCloudMountInstance.h"
#include "Qel/Module/YInstanceClassPtr.h"
#include "Qel/Thread/YTerminationSignals.h"
#include "Qel/Thread/YThread.h"
#include "Verbs/Cloud/YCloudVerbModule.h"

namespace Cloud {

namespace {

using Qel::Log::Ctl;
using MountPtr = Qel::Module::YInstanceClassPtr<CloudMount::YCloudMountInstance>;

constexpr const char* kInstanceName = "Cloud mount instance";
constexpr unsigned int kStatusSlices = 10;  // a status line every 10 sleeps of 50 ms
constexpr unsigned int kSliceMs = 50;
constexpr const char* kStatusPadding = "               ";  // 15 blanks: a shorter line covers a longer one

}  // namespace

YMountVerb::YMountVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module)
    : YVerbBase(app, module, "mount", "Mounts your cloud stuff as a read only volume locally. \n          Requires dokan 0.6.0 (Windows), osxfuse 2.5.5 (OSX) and fuse 2.8.X (Linux) ",
                {
                },
                {"Cloud path (e.g. /)", "Local path (e.g. ~/CloudMount | <drive letter>)"}, false),
      module_(module) {}

void YMountVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  module_->Login();
  const CloudSync::YCloudApi& api = module_->GetApi();
  const Qel::YString options =
      "-authToken='" + api.GetToken() + "' -cloudAddress='" + api.GetCloudAddress() + "'";
  // SIGINT and SIGTERM become termination requests: the volume is unmounted
  // and the instance released on the way out, never left behind.
  Qel::Thread::YTerminationSignals signals;
  MountPtr mount = MountPtr::AllocateInstance(CloudMount::kClassName, kInstanceName, options);

  const Qel::YString cloudPath = GetArgument("Cloud path (e.g. /)");
  const Qel::YString localPath = GetArgument("Local path (e.g. ~/CloudMount | <drive letter>)");
  mount->Mount(cloudPath, localPath);
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  out << "Successfully mounted cloud path " << cloudPath << " at local path " << localPath << Ctl::EndLine;
  out.Flush();

  while (mount->IsActive()) {
    const CloudMount::CacheStats stats = mount->GetCacheStats();
    out << "Throughput: " << mount->GetPartDownloadThroughput() << " Cache hits: " << Ctl::PlainNumbers << stats.hits
        << " Cache misses: " << Ctl::PlainNumbers << stats.misses << " Cache size: " << Ctl::SizeNumbers << stats.size
        << " Cache count: " << Ctl::PlainNumbers << stats.count << kStatusPadding << Ctl::ReturnLine;
    out.Flush();
    for (unsigned int slice = 0; slice < kStatusSlices && mount->IsActive(); ++slice) {
      qel_sleep(kSliceMs);
      Qel::Thread::TerminateCheck();  // code 65; `mount` unmounts as it goes
    }
  }
  out << Ctl::EndLine;
  out << "Dismounted path" << Ctl::EndLine;
}

}  // namespace Cloud
