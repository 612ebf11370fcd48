// YZarnuCmd: zarnucmd's application object. Installs the agent's error codes
// and log message types, maps the agent's folders (9 data, 11 crashes, 6
// configuration) and registers the five verb modules in the order Cloud,
// Config, Overlay, Debug, Peer. Run answers "-version" itself and hands every
// other command line to the verb framework.
#pragma once

#include "Qel/Application/YConsoleMain.h"

class YZarnuCmd : public Qel::Application::YConsoleMain {
 public:
  static constexpr const char* kProductPrefix = "Zarnu v";
  static constexpr const char* kVersion = "1.34.0508";

  YZarnuCmd(int argc, char** argv);
  void Run() override;
};

// Builds the application, runs it and turns an escaping YError into the exit
// code (reported on standard error as one line).
int RunZarnuCmd(int argc, char** argv);
