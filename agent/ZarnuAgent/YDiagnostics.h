// Agent::WriteDiagnostics: the file the watchdog writes when a user sends
// feedback. It lands in the crash folder next to the newest problem report
// ("problem-report-*.txt"), named after it with "-agent" before ".txt"
// ("problem-report-agent-<seconds>.txt" when there is no report), and holds
// the agent's version, uptime, linked user, root folder, queue lengths and
// the tail of agent.log. Returns the file's path; raises the system's error
// when it cannot be written.
#pragma once

#include "Qel/YString.h"

namespace Agent {

class YAgentState;

// Lines of agent.log copied into the diagnostics file.
inline constexpr size_t kDiagnosticsLogLines = 100;

Qel::YString WriteDiagnostics(YAgentState& state);

}  // namespace Agent
