// Raised by a verb whose behaviour is not built yet: the verb's words are
// checked first (unknown options, missing arguments), then error 1 "not
// available yet".
#pragma once

#include "Qel/Application/YConsoleMain.h"
#include "Qel/Exception/YError.h"

[[noreturn]] inline void RaiseNotAvailableYet(const Qel::Application::YConsoleMain::YVerbBase& verb,
                                              const char* file) {
  unsigned int exitCode = 0;
  verb.ParseParams(exitCode);
  for (const Qel::YString& name : verb.GetArgumentNames()) {
    if (name.EndsWith("...")) verb.GetMultiArgument(name, nullptr);
    else verb.GetArgument(name);
  }
  QEL_RAISE(15, 1, "not available yet", file, "Execute");
}
