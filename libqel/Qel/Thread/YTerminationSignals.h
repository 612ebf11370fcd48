// Qel::Thread::YTerminationSignals: while alive, SIGINT and SIGTERM do not
// kill the process: they set the process-wide termination request, which
// loops notice with TerminateCheck or qel_sleep. The previous handlers come
// back when the object goes. Thread-safety: make and drop it on one thread.
#pragma once

#include <signal.h>

#include <array>

namespace Qel::Thread {

class YTerminationSignals {
 public:
  YTerminationSignals();
  ~YTerminationSignals();
  YTerminationSignals(const YTerminationSignals&) = delete;
  YTerminationSignals& operator=(const YTerminationSignals&) = delete;

 private:
  std::array<struct sigaction, 2> previous_{};
};

}  // namespace Qel::Thread
