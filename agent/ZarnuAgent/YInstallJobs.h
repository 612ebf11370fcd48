// Agent::RunInstallJob: the agent's one-job installation switches.
//
//   -installOverlay       installs the file-manager overlay for this user
//                         (YOverlayInstaller), turns "csmOverlay" on and
//                         tells a running agent of this data folder, which
//                         then answers path statuses again; exit 0
//   -removeOverlay        removes what the install put in place, turns
//                         "csmOverlay" off and tells a running agent, which
//                         then answers every status with "none" and pushes
//                         nothing; exit 0
//   -installOutlookAddin  there is no such mail client on Linux: one line,
//   -removeOutlookAddin   error EOPNOTSUPP (exit 95)
//
// Each prints what it did, one line per file and a last line on the agent.
// Errors leave as YError (their code is the exit status): ENOPKG (exit 65)
// when no file manager has its Python binding, naming the packages.
#pragma once

#include "Qel/YString.h"

namespace Agent {

enum class InstallJob { kInstallOverlay, kRemoveOverlay, kInstallMailAddin, kRemoveMailAddin };

int RunInstallJob(InstallJob job, const Qel::YString& dataFolder);

}  // namespace Agent
