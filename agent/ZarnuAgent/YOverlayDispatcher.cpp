#include "YOverlayDispatcher.h"


#include "AgentConstants.h"
#include "Qel/Exception/YError.h"
#include "Qel/JSON/YValue.h"
#include "Qel/Log/YLog.h"
#include "YDiagnostics.h"

namespace Agent {

namespace {

constexpr const char* kFile = "agent/ZarnuAgent/YOverlayDispatcher";

Qel::Log::YLog& Log() { return Qel::Log::GetGlobalLogger(); }

}  // namespace

YOverlayDispatcher::YOverlayDispatcher(YAgentState& state) : state_(state), menus_(state) {
  table_ = {
      {"overlay_debug_list", &YOverlayDispatcher::DebugList},
      {"overlay_debug_enable", &YOverlayDispatcher::DebugEnable},
      {"overlay_debug_disable", &YOverlayDispatcher::DebugDisable},
      {"overlay_configdb_put", &YOverlayDispatcher::ConfigDbPut},
      {"watchdog_trigger", &YOverlayDispatcher::WatchdogTrigger},
      {"resync_share_list", &YOverlayDispatcher::ResyncShareList},
      {"resync_all", &YOverlayDispatcher::ResyncAll},
      {"overlay_get_root_share", &YOverlayDispatcher::GetRootShare},
      {"overlay_path_status_sync", &YOverlayDispatcher::PathStatusSync},
      {"overlay_path_status_cached", &YOverlayDispatcher::PathStatusCached},
      {"overlay_get_menu", &YOverlayDispatcher::GetMenu},
      {"overlay_get_link", &YOverlayDispatcher::GetLink},
      {"overlay_request_ui", &YOverlayDispatcher::RequestUi},
      {"overlay_leave_share", &YOverlayDispatcher::LeaveShare},
  };
}

std::vector<Qel::YString> YOverlayDispatcher::GetMethods() const {
  std::vector<Qel::YString> methods;
  for (const auto& [name, handler] : table_) methods.push_back(name);
  return methods;
}

Qel::IO::YCommandPtr YOverlayDispatcher::Dispatch(const Qel::IO::YCommand& request, const Push& push) {
  const Qel::YString method = request.GetMethod();
  ++state_.requestsHandled;
  if (Log().IsEnabled(kLogOvaMessages)) Log().Write(kLogOvaMessages, "Request " + method + " " + request.ToJsonText());
  auto it = table_.find(method);
  if (it == table_.end()) {
    QEL_RAISE(kLogExc, kUnknownMethod, "method \"" + method + "\"", kFile, "Dispatch");
  }
  Qel::IO::YCommandPtr reply = Qel::IO::YCommand::CreateReply(request);
  reply->SetResult((this->*(it->second))(request.GetParams(), push));
  return reply;
}

std::vector<Qel::YString> YOverlayDispatcher::MessageNames(const Qel::JSON::YObject& params) const {
  std::vector<Qel::YString> names;
  for (const auto& v : params.Get<Qel::JSON::YArray>("messages", kLogOva)) {
    if (v) names.push_back(v->AsString());
  }
  return names;
}

Qel::JSON::YObject YOverlayDispatcher::DebugList(const Qel::JSON::YObject&, const Push&) {
  Qel::Log::YLog& log = Log();
  Qel::JSON::YArray messages;
  for (const auto& [name, number] : log.GetLogTypes()) {
    Qel::JSON::YObject entry;
    entry.Set("message", Qel::JSON::YValue(name));
    entry.Set("enabled", Qel::JSON::YValue(log.IsEnabled(number)));
    messages.push_back(std::make_shared<Qel::JSON::YValue>(std::move(entry)));
  }
  Qel::JSON::YObject result;
  result.Set("messages", Qel::JSON::YValue(std::move(messages)));
  return result;
}

Qel::JSON::YObject YOverlayDispatcher::DebugEnable(const Qel::JSON::YObject& params, const Push&) {
  const std::vector<Qel::YString> names = MessageNames(params);
  state_.SetLogTypes(names, true);
  Log().Write(kLogOva, "Enabled " + std::to_string(names.size()) + " message types");
  return {};
}

Qel::JSON::YObject YOverlayDispatcher::DebugDisable(const Qel::JSON::YObject& params, const Push&) {
  const std::vector<Qel::YString> names = MessageNames(params);
  state_.SetLogTypes(names, false);
  Log().Write(kLogOva, "Disabled " + std::to_string(names.size()) + " message types");
  return {};
}

Qel::JSON::YObject YOverlayDispatcher::ConfigDbPut(const Qel::JSON::YObject& params, const Push&) {
  const Qel::YString name = params.Get<Qel::YString>("option", kLogOva);
  const Qel::YString value = params.Get<Qel::YString>("value", kLogOva);
  if (name.empty()) QEL_RAISE(kLogOva, kBadValue, "Empty option name", kFile, "ConfigDbPut");
  state_.PutOption(name, value);
  const bool overlayWasEnabled = state_.GetSettings().IsOverlayEnabled();
  if (state_.GetSettings().Apply(name, value)) {
    Log().Write(kLogApp, "Applied option " + name + " = " + value);
    // Clients that asked while the overlay was off heard nothing; now they
    // hear every status they asked for.
    if (!overlayWasEnabled && state_.GetSettings().IsOverlayEnabled()) {
      state_.GetPathStatuses().NotifyAllSubscribed();
    }
  } else {
    Log().Write(kLogApp, "Stored option " + name + " = " + value + "; not a number, the agent keeps " +
                             state_.GetSettings().GetText(name));
  }
  return {};
}

Qel::JSON::YObject YOverlayDispatcher::WatchdogTrigger(const Qel::JSON::YObject&, const Push&) {
  Log().Write(kLogWatchdog, "Watchdog triggered by a client");
  const Qel::YString path = WriteDiagnostics(state_);
  Log().Write(kLogWatchdog, "Wrote diagnostics to " + path);
  return {};
}

void YOverlayDispatcher::Rescan(const char* why, bool fromScratch) {
  state_.Reload();
  const Qel::YString root = state_.GetRootFolder();
  if (root.empty()) {
    Log().Write(kLogCsm, Qel::YString(why) + ": not linked, nothing to scan");
    return;
  }
  Log().Write(kLogCsm, Qel::YString(why) + " asked for " + root);
  state_.RequestResync(fromScratch);
}

Qel::JSON::YObject YOverlayDispatcher::ResyncShareList(const Qel::JSON::YObject&, const Push&) {
  // The link (the one share) is read again and the root folder rescanned.
  Rescan("Resync of the share list", false);
  return {};
}

Qel::JSON::YObject YOverlayDispatcher::ResyncAll(const Qel::JSON::YObject&, const Push&) {
  Rescan("Full resync", true);
  return {};
}

Qel::JSON::YObject YOverlayDispatcher::GetRootShare(const Qel::JSON::YObject&, const Push&) {
  // Clients ask once per connection, so the link is read afresh: a "-link"
  // run beside the agent shows without a restart.
  state_.ReloadLink();
  Qel::JSON::YObject result;
  result.Set("share_path", Qel::JSON::YValue(state_.GetRootFolder()));
  return result;
}

Qel::JSON::YObject YOverlayDispatcher::PathStatusSync(const Qel::JSON::YObject& params, const Push&) {
  const Qel::YString path = params.Get<Qel::YString>("file_path", kLogOva);
  const YPathState s = state_.GetSettings().IsOverlayEnabled() ? state_.GetPathStatuses().Get(path) : YPathState();
  Qel::JSON::YObject result;
  result.Set("cloud_status", Qel::JSON::YValue(s.cloudStatus));
  result.Set("sync_progress", Qel::JSON::YValue(s.syncProgress));
  result.Set("flags", Qel::JSON::YValue(s.flags));
  return result;
}

namespace {

std::vector<Qel::YString> Strings(const Qel::JSON::YObject& params, const char* name) {
  std::vector<Qel::YString> out;
  for (const auto& v : params.Get<Qel::JSON::YArray>(name, kLogOva)) {
    if (v) out.push_back(v->AsString());
  }
  return out;
}

}  // namespace

Qel::JSON::YObject YOverlayDispatcher::GetMenu(const Qel::JSON::YObject& params, const Push&) {
  return menus_.GetMenu(Strings(params, "file_paths"));
}

Qel::JSON::YObject YOverlayDispatcher::GetLink(const Qel::JSON::YObject& params, const Push&) {
  Qel::JSON::YObject result;
  result.Set("link_url", Qel::JSON::YValue(menus_.MakeLink(Strings(params, "file_paths"))));
  return result;
}

Qel::JSON::YObject YOverlayDispatcher::RequestUi(const Qel::JSON::YObject& params, const Push&) {
  return menus_.RunCommand(params.Get<Qel::YString>("file_path", kLogOva),
                           params.Get<unsigned long long>("ui_command", kLogOva));
}

Qel::JSON::YObject YOverlayDispatcher::LeaveShare(const Qel::JSON::YObject& params, const Push&) {
  menus_.LeaveShare(params.Get<Qel::YString>("share_path", kLogOva));
}

Qel::IO::YCommandPtr YOverlayDispatcher::CreateRefresh(const YPathStatusTable::Changes& changes) {
  Qel::JSON::YArray paths;
  for (const auto& [path, s] : changes) {
    Qel::JSON::YObject entry;
    entry.Set("path", Qel::JSON::YValue(path));
    entry.Set("status", Qel::JSON::YValue(s.cloudStatus));
    entry.Set("progress", Qel::JSON::YValue(s.syncProgress));
    entry.Set("flags", Qel::JSON::YValue(s.flags));
    paths.push_back(std::make_shared<Qel::JSON::YValue>(std::move(entry)));
  }
  auto refresh = Qel::IO::YCommand::CreateRequest("ova_refresh_path");
  refresh->SetParam("paths", Qel::JSON::YValue(std::move(paths)));
  return refresh;
}

Qel::JSON::YObject YOverlayDispatcher::PathStatusCached(const Qel::JSON::YObject& params, const Push& push) {
  const Qel::YString path = params.Get<Qel::YString>("file_path", kLogOva);
  // The client hears of this path again whenever its status changes (and
  // when the overlay is switched back on).
  if (push) state_.GetPathStatuses().Subscribe(push.clientId, path);
  if (state_.GetSettings().IsOverlayEnabled()) push(CreateRefresh({{path, state_.GetPathStatuses().Get(path)}}));
  return {};
}

}  // namespace Agent
