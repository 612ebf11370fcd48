#include "Verbs/Overlay/YOverlayVerbModule.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Verbs/Overlay/YRepairVerb.h"
#include "Verbs/Overlay/YInstallVerb.h"
#include "Verbs/Overlay/YRemoveVerb.h"
#include "Verbs/Overlay/YStatusVerb.h"
#include "Verbs/Overlay/YInstallOutlookVerb.h"
#include "Verbs/Overlay/YRemoveOutlookVerb.h"

namespace Overlay {

namespace {

constexpr const char* kFile = "ui/console/ZarnuCmd/Verbs/Overlay/YOverlayVerbModule";
constexpr unsigned int kAgentLogType = 198;
constexpr const char* kOverlayOption = "csmOverlay";

}  // namespace

YOverlayVerbModule::YOverlayVerbModule(Qel::Application::YConsoleMain* app)
    : YZarnuCmdVerbModule(app, "Overlay", "Commandline options for the overlay, install, repair, remove, etc.",
                          {
                          }),
      config_db_(Qel::File::GetPathName(9, "config.db")) {
  RegisterVerb(std::make_shared<YRepairVerb>(app, this));
  RegisterVerb(std::make_shared<YInstallVerb>(app, this));
  RegisterVerb(std::make_shared<YRemoveVerb>(app, this));
  RegisterVerb(std::make_shared<YStatusVerb>(app, this));
  RegisterVerb(std::make_shared<YInstallOutlookVerb>(app, this));
  RegisterVerb(std::make_shared<YRemoveOutlookVerb>(app, this));
}

void YOverlayVerbModule::Prepare(unsigned int& exitCode) { config_db_.Initialize(); }

void YOverlayVerbModule::InstallOverlay() {
  config_db_.SetOptionEnabled(kOverlayOption, true);
  ExecuteZarnuAgentWithArgsElevated("-installOverlay");
}

void YOverlayVerbModule::RemoveOverlay() {
  config_db_.SetOptionEnabled(kOverlayOption, false);
  ExecuteZarnuAgentWithArgsElevated("-removeOverlay");
}

void YOverlayVerbModule::InstallOutlookAddin() { ExecuteZarnuAgentWithArgsElevated("-installOutlookAddin"); }

void YOverlayVerbModule::RemoveOutlookAddin() { ExecuteZarnuAgentWithArgsElevated("-removeOutlookAddin"); }

void YOverlayVerbModule::ExecuteZarnuAgentWithArgsElevated(const Qel::YString& agentSwitch) {
  const Qel::YString path = Qel::File::GetPathName(3, "ZarnuAgent");
  // The new image inherits the console: what this process wrote so far must
  // be out first, and the database connection is not handed over.
  config_db_.Close();
  std::fflush(nullptr);
  const int rc = ::execl(path.c_str(), path.c_str(), agentSwitch.c_str(), static_cast<char*>(nullptr));
  if (rc == 0) return;
  const int code = rc == -1 ? errno : rc;
  Qel::Exception::YError error(kAgentLogType, static_cast<unsigned int>(code), Qel::Exception::kOsErrorSubCode,
                               __LINE__, kFile, "ExecuteZarnuAgentWithArgsElevated");
  error.SetInfo(path);
  Qel::Exception::Raise(std::move(error));
}

}  // namespace Overlay
