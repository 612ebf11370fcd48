#include "Verbs/Debug/YFeedbackVerb.h"

#include "CloudSync/Overlay/OverlayClient.h"
#include "Qel/File/File.h"
#include "Qel/IO/YSession.h"
#include "Qel/Time/YTime.h"
#include "Qel/Util/Util.h"
#include "Verbs/Debug/YDebugVerbModule.h"

namespace Debug {

YFeedbackVerb::YFeedbackVerb(Qel::Application::YConsoleMain* app, YDebugVerbModule* module)
    : YVerbBase(app, module, "feedback", "Send feedback",
                {
       {"message=", "Message for feedback"},
                },
                {}, false),
      module_(module) {}

void YFeedbackVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  Qel::File::CreatePath(Qel::File::GetPathMap(Qel::File::kMapCrash), true);
  const Qel::YString message = Qel::Application::GetOptionValue(GetOptions(), "message", "");
  const Qel::YString name =
      Qel::YString("problem-report-") + "diag-" +
      Qel::Util::NumberToString(Qel::Time::GetClockTime(Qel::Time::kClockRealtime).GetSeconds()) + ".txt";
  Qel::File::PutContents(Qel::File::GetPathName(Qel::File::kMapCrash, name), message, 0, 0);

  // The report stays when the agent cannot be told; the client is then left
  // to the process's end.
  OverlayClient::Initialize(Qel::File::GetPathMap(Qel::File::kMapData), nullptr, nullptr);
  const std::shared_ptr<Qel::IO::YSession> session = OverlayClient::ConnectToAgent();
  session->ProcessRequest(Qel::IO::YCommand::CreateRequest("watchdog_trigger"), Qel::Time::Infinity());
  OverlayClient::Deinitialize();
}

}  // namespace Debug
