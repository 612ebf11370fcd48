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
#include "YLinkCommand.h"

namespace {

constexpr const char* kFile = "agent/ZarnuAgent/main";

// The installation jobs that later work fills in; each names itself.
struct Job {
  const char* flag;
  const char* what;
};
constexpr Job kJobs[] = {
    {"installOverlay", "installing the file-manager overlay"},
    {"removeOverlay", "removing the file-manager overlay"},
    {"installOutlookAddin", "installing the mail client add-in"},
    {"removeOutlookAddin", "removing the mail client add-in"},
};

int Main(int argc, char** argv) {
  const Agent::YAgentCommandLine commandLine(argc, argv);
  if (commandLine.Has("help")) {
    std::fputs(Agent::YAgentCommandLine::Usage().c_str(), stdout);
    return 0;
  }
  for (const Job& job : kJobs) {
    if (commandLine.Has(job.flag)) {
      QEL_RAISE(Agent::kLogApp, Agent::kGeneralFailure, Qel::YString(job.what) + " is not available yet", kFile,
                "Main");
    }
  }
  const Qel::YString data = CloudSync::GetDefaultZarnuDataPath();
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
