#include "YDiagnostics.h"

#include <deque>
#include <filesystem>
#include <fstream>

#include "AgentConstants.h"
#include "Qel/File/File.h"
#include "Qel/Time/YTime.h"
#include "YAgentState.h"

namespace Agent {

namespace {

constexpr std::string_view kReportPrefix = "problem-report-";
constexpr std::string_view kAgentSuffix = "-agent.txt";
// Diagnostics written when there was no report start with this.
constexpr std::string_view kAgentPrefix = "problem-report-agent-";

// The newest report a user left (not a diagnostics file of ours), or "".
std::filesystem::path NewestReport(const std::filesystem::path& folder) {
  std::filesystem::path newest;
  std::filesystem::file_time_type newest_time;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ec)) {
    const std::string name = entry.path().filename().string();
    if (!name.starts_with(kReportPrefix) || !name.ends_with(".txt") || name.ends_with(kAgentSuffix) ||
        name.starts_with(kAgentPrefix)) {
      continue;
    }
    const auto t = entry.last_write_time(ec);
    if (ec) continue;
    if (newest.empty() || t > newest_time || (t == newest_time && entry.path() > newest)) {
      newest = entry.path();
      newest_time = t;
    }
  }
  return newest;
}

std::string LogTail(const Qel::YString& path) {
  std::ifstream in(path);
  std::deque<std::string> lines;
  std::string line;
  while (std::getline(in, line)) {
    lines.push_back(line);
    if (lines.size() > kDiagnosticsLogLines) lines.pop_front();
  }
  std::string text;
  for (const std::string& l : lines) text += l + "\n";
  return text;
}

}  // namespace

Qel::YString WriteDiagnostics(YAgentState& state) {
  const std::filesystem::path folder = std::string(state.GetPath(kCrashFolder));
  Qel::File::CreatePath(folder.string(), true);
  const std::filesystem::path report = NewestReport(folder);
  std::string name;
  if (report.empty()) {
    name = std::string(kAgentPrefix) +
           std::to_string(Qel::Time::GetClockTime(Qel::Time::kClockRealtime).GetSeconds()) + ".txt";
  } else {
    const std::string stem = report.filename().string();
    name = stem.substr(0, stem.size() - 4) + std::string(kAgentSuffix);
  }
  const Qel::YString root = state.GetRootFolder();
  const Qel::YString user = state.GetUser();
  std::string text;
  text += "ZarnuAgent version " + std::string(kVersion) + "\n";
  text += "uptime: " + std::to_string(state.GetUptime().count()) + " s\n";
  text += "linked user: " + (user.empty() ? std::string("(not linked)") : std::string(user)) + "\n";
  text += "root folder: " + (root.empty() ? std::string("(none)") : std::string(root)) + "\n";
  text += "problem report: " + (report.empty() ? std::string("(none)") : report.filename().string()) + "\n";
  text += "sessions open: " + std::to_string(state.CountOpenSessions()) + "\n";
  text += "sessions served: " + std::to_string(state.sessionsServed.load()) + "\n";
  text += "requests handled: " + std::to_string(state.requestsHandled.load()) + "\n";
  text += "path statuses known: " + std::to_string(state.GetPathStatuses().Size()) + "\n";
  text += "pending sync work: 0\n";
  text += "--- last lines of " + std::string(kLogFile) + " ---\n";
  text += LogTail(state.GetPath(kLogFile));
  const Qel::YString path = (folder / name).string();
  Qel::File::PutContents(path, text);
  return path;
}

}  // namespace Agent
