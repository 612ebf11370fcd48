// Qel::Application::YKeyPressMode: while alive, a terminal on standard input
// hands over every key press at once, without echo. Ctrl-C and the other
// signal keys still work.
//
// The terminal's previous mode comes back when the object goes, and on every
// other way out: a stop signal (SIGINT, SIGTERM, SIGHUP, SIGQUIT) restores it
// and then ends the process as that signal would have, and exit() restores it
// too. When standard input is not a terminal nothing changes and IsActive()
// is false. Thread-safety: one object at a time per process; make and drop it
// on one thread.
#pragma once

namespace Qel::Application {

class YKeyPressMode {
 public:
  YKeyPressMode();
  ~YKeyPressMode();
  YKeyPressMode(const YKeyPressMode&) = delete;
  YKeyPressMode& operator=(const YKeyPressMode&) = delete;

  bool IsActive() const { return active_; }

 private:
  bool active_ = false;
};

}  // namespace Qel::Application
