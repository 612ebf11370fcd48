// YZarnuCmdVerbModule: the common base of zarnucmd's five verb modules.
// Every module implements Prepare, which the framework runs after the verb is
// selected and before it executes (the Cloud module parses its options there,
// the Config module opens its database and builds its option table).
#pragma once

#include "Qel/Application/YConsoleMain.h"

class YZarnuCmdVerbModule : public Qel::Application::YConsoleMain::YVerbModuleBase {
 public:
  YZarnuCmdVerbModule(Qel::Application::YConsoleMain* app, const Qel::YString& name, const Qel::YString& description,
                      const Qel::Application::OptionMap& options = {},
                      const Qel::Application::ArgumentList& arguments = {})
      : YVerbModuleBase(app, name, description, options, arguments, false) {}

  void Prepare(unsigned int& exitCode) override = 0;
};
