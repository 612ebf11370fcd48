#include "Verbs/Debug/YMsgVerb.h"

#include <tuple>

#include "CloudSync/Overlay/OverlayClient.h"
#include "CloudSync/Overlay/YClientScope.h"
#include "Qel/File/File.h"
#include "Qel/IO/YSession.h"
#include "Qel/JSON/YValue.h"
#include "Qel/Log/YConsoleLogger.h"
#include "Qel/Match/RegExp.h"
#include "Verbs/Debug/YDebugVerbModule.h"

namespace Debug {

namespace {

constexpr const char* kFile = "ui/console/ZarnuCmd/Verbs/Debug/YMsgVerb";
constexpr unsigned int kLogShell = 15;
constexpr unsigned int kLogReply = 198;
constexpr unsigned int kMissingOption = 46;
constexpr const char* kSeparator = "_______________________________________________________";

struct Message {
  Qel::YString name;
  bool enabled;
};

// The agent's message types whose names match one of `patterns`, in the
// agent's order.
std::vector<Message> FilteredMessages(Qel::IO::YSession& session, const std::vector<Qel::YString>& patterns) {
  const Qel::IO::YCommandPtr reply =
      session.ProcessRequest(Qel::IO::YCommand::CreateRequest("overlay_debug_list"), Qel::Time::Infinity());
  const Qel::JSON::YObject result = reply->GetObject().Get<Qel::JSON::YObject>("result", kLogReply);
  std::vector<Message> kept;
  for (const Qel::JSON::YValuePtr& v : result.Get<Qel::JSON::YArray>("messages", kLogReply)) {
    const Qel::JSON::YObject entry = v ? v->AsObject() : Qel::JSON::YObject();
    Message m;
    m.enabled = entry.Get<bool>("enabled", kLogReply);
    m.name = entry.Get<Qel::YString>("message", kLogReply);
    for (const Qel::YString& pattern : patterns) {
      if (Qel::Match::RegExp(m.name, pattern, false)) {
        kept.push_back(m);
        break;
      }
    }
  }
  return kept;
}

void Switch(Qel::IO::YSession& session, const char* method, const std::vector<Message>& messages) {
  Qel::JSON::YArray names;
  for (const Message& m : messages) names.push_back(std::make_shared<Qel::JSON::YValue>(m.name));
  Qel::IO::YCommandPtr request = Qel::IO::YCommand::CreateRequest(method);
  request->SetParam("messages", Qel::JSON::YValue(std::move(names)));
  session.ProcessRequest(request, Qel::Time::Infinity());
}

}  // namespace

YMsgVerb::YMsgVerb(Qel::Application::YConsoleMain* app, YDebugVerbModule* module)
    : YVerbBase(app, module, "msg", "Enables/Disables message log output in Zarnu agent",
                {
       {"enable", "Enables one or more messages (comma seperated)"},
       {"disable", "Disables one or more messages (comma seperated)"},
       {"list", "Lists all available messages"},
                },
                {"msg..."}, false),
      module_(module) {}

void YMsgVerb::Execute(unsigned int& exitCode) {
  using Qel::Log::Ctl;
  ParseParams(exitCode);
  OverlayClient::YClientScope client(Qel::File::GetPathMap(Qel::File::kMapData));
  const std::shared_ptr<Qel::IO::YSession> session = OverlayClient::ConnectToAgent();
  const Qel::Application::OptionMap& options = GetOptions();
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();

  for (const auto& [option, method, done] : {std::tuple{"enable", "overlay_debug_enable", "Enabled "},
                                             std::tuple{"disable", "overlay_debug_disable", "Disabled "}}) {
    if (!Qel::Application::HasOption(options, option)) continue;
    const std::vector<Qel::YString> patterns = GetMultiArgument("msg...", nullptr);
    Switch(*session, method, FilteredMessages(*session, patterns));
    out << done << patterns << Ctl::EndLine;
    return;
  }
  if (!Qel::Application::HasOption(options, "list")) {
    QEL_RAISE(kLogShell, kMissingOption, "You must specify a option to list", kFile, "Execute");
  }
  out << " Message name " << Ctl::AlignRight << Qel::Log::Width(20) << " enabled" << Ctl::EndLine;
  out << kSeparator << Ctl::EndLine;
  const std::vector<Qel::YString> patterns =
      HasArgument("msg...") ? GetMultiArgument("msg...", nullptr) : std::vector<Qel::YString>{".*"};
  for (const Message& m : FilteredMessages(*session, patterns)) {
    out << Ctl::AlignLeft << Qel::Log::Width(15) << ("  " + m.name) << Ctl::AlignRight << Qel::Log::Width(20)
        << (m.enabled ? " *" : "") << Ctl::EndLine;
  }
}

}  // namespace Debug
