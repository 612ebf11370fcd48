// Cloud verb "build": Uploads build to Zarnu and optionally updates build slot with new token
//
// The build file goes to "/Zarnu Builds/agent/<plat>/<version folder>/"; the
// verb prints the public link's token and address, can write the address to
// "<plat>_url" beside the program, and can post the token as the download of
// named build slots to the build-slot service. A failed run is repeated from
// the start as often as "retries" allows.
#pragma once

#include "Qel/Application/YConsoleMain.h"
#include "Qel/JSON/YObject.h"
#include "Qel/YString.h"

namespace Cloud {

class YCloudVerbModule;

class YBuildVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YBuildVerb(Qel::Application::YConsoleMain* app, YCloudVerbModule* module);
  void Execute(unsigned int& exitCode) override;

  // The request body that names `token` as the download of each slot of the
  // comma-separated `slots` on `plat` (slots that normalise to "ga" are left
  // out; platform "nebra" is sent as "lin" with "nebra-" slot names).
  static Qel::JSON::YObject MakeSlotRequest(const Qel::YString& plat, const Qel::YString& slots,
                                            const Qel::YString& token, const Qel::YString& version);

 private:
  void RunBuild();
  void UpdateCloudSlots(const Qel::JSON::YObject& request, bool debug);

  YCloudVerbModule* module_;
};

}  // namespace Cloud
