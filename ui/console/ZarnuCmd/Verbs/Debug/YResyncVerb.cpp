#include "Verbs/Debug/YResyncVerb.h"

#include "CloudSync/Overlay/OverlayClient.h"
#include "CloudSync/Overlay/YClientScope.h"
#include "Qel/File/File.h"
#include "Qel/IO/YSession.h"
#include "Verbs/Debug/YDebugVerbModule.h"

namespace Debug {

YResyncVerb::YResyncVerb(Qel::Application::YConsoleMain* app, YDebugVerbModule* module)
    : YVerbBase(app, module, "resync", "resyncs shares or performs a hard reset of share list",
                {
       {"shares", "Replace local share list with shares from cloud"},
                },
                {}, false),
      module_(module) {}

namespace {

// Sends `method` to the agent and waits for its reply.
void Send(const char* method) {
  OverlayClient::YClientScope client(Qel::File::GetPathMap(Qel::File::kMapData));
  OverlayClient::ConnectToAgent()->ProcessRequest(Qel::IO::YCommand::CreateRequest(method), Qel::Time::Infinity());
}

}  // namespace

void YResyncVerb::ResyncShares(YDebugVerbModule&) { Send("resync_share_list"); }

void YResyncVerb::ResyncAll(YDebugVerbModule&) { Send("resync_all"); }

void YResyncVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  if (Qel::Application::HasOption(GetOptions(), "shares")) ResyncShares(*module_);
  else ResyncAll(*module_);
}

}  // namespace Debug
