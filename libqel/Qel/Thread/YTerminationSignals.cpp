#include "Qel/Thread/YTerminationSignals.h"

#include "Qel/Thread/YThread.h"

namespace Qel::Thread {

namespace {

constexpr std::array<int, 2> kSignals = {SIGINT, SIGTERM};

void OnSignal(int) { RequestProcessTermination(); }  // async-signal-safe: one atomic store

}  // namespace

YTerminationSignals::YTerminationSignals() {
  struct sigaction handler{};
  handler.sa_handler = OnSignal;
  sigemptyset(&handler.sa_mask);
  for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &handler, &previous_[i]);
}

YTerminationSignals::~YTerminationSignals() {
  for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &previous_[i], nullptr);
}

}  // namespace Qel::Thread
