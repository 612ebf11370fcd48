#include "Verbs/Overlay/YStatusVerb.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>

#include "CloudSync/Overlay/MenuItem.h"
#include "CloudSync/Overlay/OverlayClient.h"
#include "CloudSync/Overlay/PathStatus.h"
#include "CloudSync/Overlay/YClientScope.h"
#include "CloudSync/Overlay/YOverlayContext.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/File/YFileEnum.h"
#include "Qel/IO/YCommand.h"
#include "Qel/IO/YSession.h"
#include "Qel/JSON/YValue.h"
#include "Qel/Log/YConsoleLogger.h"
#include "Qel/Thread/YThread.h"
#include "Qel/Util/Util.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"

namespace Overlay {

namespace {

constexpr const char* kEnumSource = "libqel/Qel/File/YFileEnumHandler";
constexpr unsigned int kLogShell = 15;
constexpr unsigned int kDefaultWatchMs = 500;
constexpr unsigned int kInputCheckMs = 50;  // how soon a line entered ends the watch
constexpr uint64_t kShowDescription = 1;  // menu item flag: its description belongs in status output
constexpr size_t kNameExtra = 8;
constexpr size_t kStatusExtra = 8;
constexpr size_t kRuleExtra = 17;  // the two column gaps, plus one

using Qel::YString;
using Qel::Log::Ctl;

// A shell wild card ("*.txt") as the regular expression the enumerator takes.
YString WildcardToRegex(const YString& pattern) {
  YString out;
  for (char c : pattern) {
    if (c == '*') out += ".*";
    else if (c == '?') out += '.';
    else if (std::string_view("\\^$.|+()[]{}").find(c) != std::string_view::npos) out += YString("\\") + c;
    else out += c;
  }
  return out;
}

// Status requests for many entries at once: up to kInFlight go out before the
// first answer is awaited, so a folder of many files costs about one round trip
// per window instead of one per file. Answers fill their rows on the IO thread
// under the lock; Wait returns once every row is filled.
class StatusRequests {
 public:
  static constexpr size_t kInFlight = 256;

  explicit StatusRequests(OverlayClient::YOverlayContext& context) : context_(context) {}
  ~StatusRequests() { Wait(); }
  StatusRequests(const StatusRequests&) = delete;
  StatusRequests& operator=(const StatusRequests&) = delete;

  // Asks for `path`; `row` (which must stay in place until Wait) gets the texts.
  void Ask(const YString& path, YStatusVerb::Row* row) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      done_.wait(lock, [this] { return pending_ < kInFlight; });
      ++pending_;
    }
    auto request = Qel::IO::YCommand::CreateRequest("overlay_path_status_sync");
    request->SetParam("file_path", Qel::JSON::YValue(path));
    try {
      context_.SubmitAgentRequestAsync(request, [this, path, row](std::shared_ptr<Qel::IO::YSession>,
                                                                  Qel::IO::YCommandPtr reply,
                                                                  const Qel::Exception::YError* error) {
        YStatusVerb::Row answer;
        try {
          if (error) Qel::Exception::Raise(*error);
          OverlayClient::PathStatus status;
          status.path = path;
          const Qel::JSON::YObject result = reply->GetResult();
          status.cloudStatus = static_cast<int32_t>(result.Get<unsigned long long>("cloud_status", kLogReply));
          status.syncProgress = static_cast<int32_t>(result.Get<unsigned long long>("sync_progress", kLogReply));
          Fill(*row, status);
        } catch (const Qel::Exception::YError& e) {
          Fail(*row, e);
        }
        Finish();
      });
    } catch (const Qel::Exception::YError&) {
      // No session right now: ask the slow way, which connects first.
      try {
        Fill(*row, context_.GetPathStatus(path));
      } catch (const Qel::Exception::YError& e) {
        Fail(*row, e);
      }
      Finish();
    }
  }

  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return pending_ == 0; });
  }

 private:
  static constexpr unsigned int kLogReply = 198;

  void Fill(YStatusVerb::Row& row, const OverlayClient::PathStatus& status) {
    std::lock_guard<std::mutex> lock(mutex_);
    row.status = OverlayClient::CloudStatusText(status);
    row.progress = OverlayClient::SyncProgressText(status);
  }
  void Fail(YStatusVerb::Row& row, const Qel::Exception::YError& e) {
    std::lock_guard<std::mutex> lock(mutex_);
    row.status = "Error";
    row.progress = e.GetSummary();
  }
  void Finish() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      --pending_;
    }
    done_.notify_all();
  }

  OverlayClient::YOverlayContext& context_;
  std::mutex mutex_;
  std::condition_variable done_;
  size_t pending_ = 0;  // guarded by mutex_
};

}  // namespace

YStatusVerb::YStatusVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module)
    : YVerbBase(app, module, "status", "Reports status of a path (wild cards are supported)",
                {
       {"w,watch", "Continually watch path for changes for the specified number of milliseconds (default to 5000)"},
       {"d,detailed", "Shows detailed status"},
                },
                {"path..."}, false),
      module_(module) {}

YStatusVerb::Results YStatusVerb::Pass(OverlayClient::YOverlayContext& context, const YString& root,
                                       const std::vector<YString>& paths, bool detailed) {
  Results results;
  StatusRequests requests(context);
  for (const YString& given : paths) {
    // Inside the root share as given; anything else names a place inside it.
    const bool inside = !root.empty() && Qel::File::DoesFileExist(given) &&
                        Qel::File::IsPathWithinPath(given, root, false);
    const YString path = inside ? given : Qel::File::AppendPaths(root, given, "/");
    const YString folder = Qel::File::RemoveFileFromPath(path, "/");
    const YString pattern = Qel::File::GetFileFromPath(path, "/");
    bool found = false;
    auto onEntry = [&](const Qel::File::YFileEnumEntry& entry) {
      found = true;
      Row& row = results[folder][entry.path];
      row.name = entry.name;
      requests.Ask(entry.path, &row);
      if (detailed) {
        try {
          for (const OverlayClient::MenuItemPtr& item : context.GetContextMenu(entry.path)) {
            if (item && (item->flags & kShowDescription) != 0) row.details.push_back(item->description);
          }
        } catch (const Qel::Exception::YError&) {
          // No menu for this entry: no detail lines.
        }
      }
      return Qel::File::EnumResult::kContinue;
    };
    int rc = qel_file_enum(folder, pattern, 0, onEntry);
    // "*.txt" is no regular expression; as a shell wild card it is.
    if (rc == EINVAL && !found) rc = qel_file_enum(folder, WildcardToRegex(pattern), 0, onEntry);
    if (rc == ENOENT || rc == ENOTDIR) rc = 0;  // a missing folder: the "No such path" row below
    if (rc != 0) {
      Qel::Exception::YError error(kLogShell, static_cast<unsigned int>(rc), 0, __LINE__, kEnumSource, "Enumerate");
      error.SetInfo(folder);
      Qel::Exception::Raise(error);
    }
    if (!found) {
      requests.Wait();
      results[path][path] = Row{Qel::File::GetFileFromPath(path, "/"), "Error", "No such path", {}};
    }
  }
  requests.Wait();
  return results;
}

void YStatusVerb::Print(const Results& results, bool detailed) {
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  size_t name = 0, status = 0, progress = 0;
  for (const auto& [folder, rows] : results) {
    for (const auto& [path, row] : rows) {
      name = std::max(name, row.name.size());
      status = std::max(status, row.status.size());
      progress = std::max(progress, row.progress.size());
    }
  }
  for (const auto& [folder, rows] : results) {
    out << "Results for path: " << folder << Ctl::EndLine;
    out << Qel::Log::Fill('_') << Qel::Log::Width(name + status + progress + kRuleExtra) << " " << Ctl::EndLine;
    for (const auto& [path, row] : rows) {
      out << Ctl::AlignLeft << Qel::Log::Width(name + kNameExtra) << row.name << Ctl::AlignLeft
          << Qel::Log::Width(status + kStatusExtra) << row.status << Ctl::AlignLeft << Qel::Log::Width(progress)
          << row.progress << Ctl::EndLine;
      if (!detailed) continue;
      for (const YString& detail : row.details) {
        out << Qel::Log::Width(name + kNameExtra) << " " << detail << Ctl::EndLine;
      }
      if (!row.details.empty()) out << Ctl::EndLine;
    }
  }
}

bool YStatusVerb::WaitForInput(unsigned int periodMs) {
  // In short slices: a line entered during a long period ends the watch at once.
  for (unsigned int slept = 0; slept < periodMs; slept += kInputCheckMs) {
    if (GetApp()->HasConsoleInput()) return true;
    if (!qel_sleep(std::min(kInputCheckMs, periodMs - slept))) return true;  // interrupted: stop
  }
  return GetApp()->HasConsoleInput();
}

void YStatusVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  const Qel::Application::OptionMap& options = GetOptions();
  const bool detailed = Qel::Application::HasOption(options, "d");
  const bool watch = Qel::Application::HasOption(options, "w");
  unsigned int periodMs = kDefaultWatchMs;
  if (watch) {
    const YString value = Qel::Application::GetOptionValue(options, "w", "");
    if (!value.empty()) periodMs = Qel::Util::StringToNumber<unsigned int>(value);
  }
  const std::vector<YString> paths = GetMultiArgument("path...", ".*");

  OverlayClient::YClientScope client(Qel::File::GetPathMap(Qel::File::kMapData));
  OverlayClient::ConnectToAgent();  // no agent: its error, at once
  const std::shared_ptr<OverlayClient::YOverlayContext> context = OverlayClient::GetLocalContext();
  YString root = context->GetRootShare();
  while (root.size() > 1 && root.EndsWith("/")) root.pop_back();

  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  if (watch) {
    out << "Watch mode enabled, press enter to stop" << Ctl::EndLine;
    out.Flush();
    GetApp()->StartConsoleReader();
  }
  Results previous;
  bool first = true;
  while (true) {
    Results now = Pass(*context, root, paths, detailed);
    if (first || now != previous) {
      Print(now, detailed);
      out.Flush();
    }
    first = false;
    previous = std::move(now);
    if (!watch || WaitForInput(periodMs)) break;
  }
}

}  // namespace Overlay
