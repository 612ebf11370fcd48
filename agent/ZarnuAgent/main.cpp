// ZarnuAgent: the Zarnu agent (see YAgentCommandLine.h for its switches).
#include <signal.h>

#include <cstdio>

#include "AgentConstants.h"
#include "CloudSync/Codes.h"
#include "CloudSync/Paths.h"
#include "Qel/Exception/YError.h"
#include "Qel/Foundation/YInitContext.h"
#include "YAgent.h"
#include "YAgentCommandLine.h"
#include "YInstallJobs.h"
#include "YLinkCommand.h"

namespace {

// The one-job switches (YInstallJobs.h).
struct Job {
  const char* flag;
  Agent::InstallJob job;
};
constexpr Job kJobs[] = {
    {"installOverlay", Agent::InstallJob::kInstallOverlay},
    {"removeOverlay", Agent::InstallJob::kRemoveOverlay},
    {"installOutlookAddin", Agent::InstallJob::kInstallMailAddin},
    {"removeOutlookAddin", Agent::InstallJob::kRemoveMailAddin},
};

int Main(int argc, char** argv) {
  const Agent::YAgentCommandLine commandLine(argc, argv);
  if (commandLine.Has("help")) {
    std::fputs(Agent::YAgentCommandLine::Usage().c_str(), stdout);
    return 0;
  }
  const Qel::YString data = CloudSync::GetDefaultZarnuDataPath();
  for (const Job& job : kJobs) {
    if (commandLine.Has(job.flag)) return Agent::RunInstallJob(job.job, data);
  }
  if (commandLine.Has("link")) return Agent::RunLink(commandLine, data);
  Agent::YAgent agent(data, commandLine.Get("listen", ""));
  return agent.Run();
}

}  // namespace

int main(int argc, char** argv) {
  // Stop signals are taken by sigwait in the agent; block them before any
  // thread starts so that every thread inherits the mask.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  Qel::Foundation::YInitContext init;
  CloudSync::RegisterErrorCodes();
  CloudSync::RegisterLogTypes();
  try {
    return Main(argc, argv);
  } catch (const Qel::Exception::YError& e) {
    std::fprintf(stderr, "ZarnuAgent: %s\n", e.GetSummary().c_str());
    return e.GetExitCode();
  }
}
