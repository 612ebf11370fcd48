#include "YInstallJobs.h"

#include <cerrno>
#include <cstdio>
#include <future>

#include "AgentConstants.h"
#include "CloudSync/YConfigDb.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/IO/YCommand.h"
#include "Qel/IO/YIo.h"
#include "Qel/IO/YService.h"
#include "Qel/IO/YSession.h"
#include "Qel/JSON/YValue.h"
#include "YOverlayInstaller.h"

namespace Agent {

namespace {

constexpr const char* kFile = "agent/ZarnuAgent/YInstallJobs";
constexpr const char* kOverlayOption = "csmOverlay";
constexpr const char* kConfigDbPut = "overlay_configdb_put";
constexpr unsigned int kClientThreads = 1;
constexpr Qel::Time::YDuration kConnectWait = Qel::Time::YDuration::Seconds(2);
constexpr Qel::Time::YDuration kReplyWait = Qel::Time::YDuration::Seconds(3);

// Sends the option to the agent serving `socketPath`; false when none
// answers (no socket, nobody listening, no reply in time).
bool PutToRunningAgent(const Qel::YString& socketPath, const Qel::YString& option, const Qel::YString& value) {
  Qel::IO::YService service;
  service.Initialize(kClientThreads);
  bool told = false;
  try {
    auto io = Qel::IO::YUnixDomainIo::Create(service);
    auto connected = std::make_shared<std::promise<bool>>();
    std::future<bool> outcome = connected->get_future();
    io->ConnectAsync(
        socketPath,
        [connected](std::shared_ptr<Qel::IO::YIoBase>, const Qel::Exception::YError* error) {
          connected->set_value(error == nullptr);
        },
        kConnectWait);
    if (outcome.get()) {
      // The agent sends this client nothing it needs to act on.
      auto session = std::make_shared<Qel::IO::YSession>(
          [](std::shared_ptr<Qel::IO::YSession>, Qel::IO::YCommandPtr request) {
            return Qel::IO::YCommand::CreateReply(*request);
          });
      session->Allocate(io);
      auto request = Qel::IO::YCommand::CreateRequest(kConfigDbPut);
      request->SetParam("option", Qel::JSON::YValue(option));
      request->SetParam("value", Qel::JSON::YValue(value));
      session->ProcessRequest(request, kReplyWait);
      told = true;
      session->Release();
    } else {
      io->Close();
    }
  } catch (const Qel::Exception::YError&) {
    told = false;
  }
  service.Deinitialize();
  return told;
}

// Stores "csmOverlay" through the running agent (which applies it at once),
// else straight into config.db. Returns the line that says which.
Qel::YString SetOverlayEnabled(const Qel::YString& dataFolder, bool enabled) {
  const Qel::YString value = enabled ? "1" : "0";
  if (PutToRunningAgent(Qel::File::AppendPaths(dataFolder, kSocketFile), kOverlayOption, value)) {
    return enabled ? "The running agent answers path statuses for the overlay again"
                   : "The running agent no longer answers path statuses for the overlay";
  }
  CloudSync::YConfigDb db(Qel::File::AppendPaths(dataFolder, kConfigDbFile));
  db.Initialize();
  db.SetOptionEnabled(kOverlayOption, enabled);
  return Qel::YString(kOverlayOption) + " set to " + value + " in " + Qel::File::AppendPaths(dataFolder, kConfigDbFile) +
         "; no agent is running";
}

}  // namespace

int RunInstallJob(InstallJob job, const Qel::YString& dataFolder) {
  std::vector<Qel::YString> lines;
  switch (job) {
    case InstallJob::kInstallOverlay:
      lines = YOverlayInstaller(YOverlayInstaller::DefaultLocations()).Install();
      lines.push_back(SetOverlayEnabled(dataFolder, true));
      break;
    case InstallJob::kRemoveOverlay:
      lines = YOverlayInstaller(YOverlayInstaller::DefaultLocations()).Remove();
      lines.push_back(SetOverlayEnabled(dataFolder, false));
      break;
    case InstallJob::kInstallMailAddin:
    case InstallJob::kRemoveMailAddin:
      QEL_RAISE_OS(kLogApp, EOPNOTSUPP,
                   Qel::YString("there is no Outlook mail client on Linux, so there is no add-in to ") +
                       (job == InstallJob::kInstallMailAddin ? "install" : "remove"),
                   kFile, "RunInstallJob");
  }
  for (const Qel::YString& line : lines) std::printf("%s\n", line.c_str());
  std::fflush(stdout);
  return 0;
}

}  // namespace Agent
