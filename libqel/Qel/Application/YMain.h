// Qel::Application::YMain: the base of every application object. Holds the
// prepared argument vector (not owned; it must outlive the object).
#pragma once

#include "Qel/YString.h"

namespace Qel::Application {

class YMain {
 public:
  YMain(int argc, char** argv) : argc_(argc), argv_(argv) {}
  virtual ~YMain() = default;
  YMain(const YMain&) = delete;
  YMain& operator=(const YMain&) = delete;

  virtual void Run() = 0;
  int GetArgC() const { return argc_; }
  char** GetArgV() const { return argv_; }
  // Number of argument slots that hold words: argc, but at most the 64 slots
  // of the prepared vector.
  int GetFilledArgC() const { return argc_ < 64 ? argc_ : 64; }
  // True when any word after the program name is exactly `option`.
  bool CheckCommandLineOption(const YString& option) const;

 private:
  int argc_;
  char** argv_;
};

}  // namespace Qel::Application
