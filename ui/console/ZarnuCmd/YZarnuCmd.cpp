#include "YZarnuCmd.h"

#include <memory>

#include "CloudSync/Codes.h"
#include "CloudSync/Paths.h"
#include "Qel/File/File.h"
#include "Verbs/Cloud/YCloudVerbModule.h"
#include "Verbs/Config/YConfigVerbModule.h"
#include "Verbs/Debug/YDebugVerbModule.h"
#include "Verbs/Overlay/YOverlayVerbModule.h"
#include "Verbs/Peer/YPeerVerbModule.h"

YZarnuCmd::YZarnuCmd(int argc, char** argv) : YConsoleMain(argc, argv) {
  CloudSync::RegisterErrorCodes();
  CloudSync::RegisterLogTypes();

  const Qel::YString data = CloudSync::GetDefaultZarnuDataPath();
  Qel::File::SetPathMap(Qel::File::kMapData, data);
  Qel::File::SetPathMap(Qel::File::kMapCrash, Qel::File::AppendPaths(data, "crashes", "/"));
  if (!Qel::File::DoesFileExist(Qel::File::GetPathName(Qel::File::kMapConfig, "config.ini"))) {
    Qel::File::SetPathMap(Qel::File::kMapConfig, data);
  }

  RegisterModule(std::make_shared<Cloud::YCloudVerbModule>(this));
  RegisterModule(std::make_shared<Config::YConfigVerbModule>(this));
  RegisterModule(std::make_shared<Overlay::YOverlayVerbModule>(this));
  RegisterModule(std::make_shared<Debug::YDebugVerbModule>(this));
  RegisterModule(std::make_shared<Peer::YPeerVerbModule>(this));
}

void YZarnuCmd::Run() {
  if (CheckCommandLineOption("-version")) {
    GetLogger() << kProductPrefix << kVersion << Qel::Log::Ctl::EndLine;
    return;
  }
  // The exit code a verb stores is not used: failures leave as YError.
  Main();
}

int RunZarnuCmd(int argc, char** argv) {
  const Qel::YString program = argv[0] ? Qel::File::GetFileFromPath(argv[0]) : Qel::YString("zarnucmd");
  std::unique_ptr<YZarnuCmd> app;
  try {
    app = std::make_unique<YZarnuCmd>(argc, argv);
  } catch (const Qel::Exception::YError& e) {
    Qel::Application::ReportError(program, e);
    return e.GetExitCode();
  }
  try {
    app->Run();
  } catch (const Qel::Exception::YError& e) {
    app.reset();
    Qel::Application::ReportError(program, e);
    return e.GetExitCode();
  }
  app.reset();
  return 0;
}
