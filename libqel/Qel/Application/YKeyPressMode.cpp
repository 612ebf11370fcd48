#include "Qel/Application/YKeyPressMode.h"

#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>

namespace Qel::Application {

namespace {

constexpr std::array<int, 4> kStopSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// The mode to restore. Written before g_saved_valid is set and read only
// after, so the signal handler and the exit hook see a complete copy.
termios g_saved{};
std::atomic<bool> g_saved_valid{false};
std::array<struct sigaction, kStopSignals.size()> g_previous{};

void RestoreTerminal() {
  if (g_saved_valid.exchange(false)) tcsetattr(STDIN_FILENO, TCSANOW, &g_saved);
}

// Async-signal-safe: tcsetattr, sigaction and raise only.
void OnStopSignal(int signal_number) {
  RestoreTerminal();
  struct sigaction fallback{};
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  sigaction(signal_number, &fallback, nullptr);
  raise(signal_number);
}

}  // namespace

YKeyPressMode::YKeyPressMode() {
  if (!isatty(STDIN_FILENO) || tcgetattr(STDIN_FILENO, &g_saved) != 0) return;
  termios keys = g_saved;
  keys.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
  keys.c_cc[VMIN] = 1;
  keys.c_cc[VTIME] = 0;
  g_saved_valid.store(true);
  static const bool hooked = std::atexit(RestoreTerminal) == 0;
  (void)hooked;
  struct sigaction handler{};
  handler.sa_handler = OnStopSignal;
  sigemptyset(&handler.sa_mask);
  for (size_t i = 0; i < kStopSignals.size(); ++i) sigaction(kStopSignals[i], &handler, &g_previous[i]);
  active_ = tcsetattr(STDIN_FILENO, TCSANOW, &keys) == 0;
  if (!active_) {
    g_saved_valid.store(false);
    for (size_t i = 0; i < kStopSignals.size(); ++i) sigaction(kStopSignals[i], &g_previous[i], nullptr);
  }
}

YKeyPressMode::~YKeyPressMode() {
  if (!active_) return;
  RestoreTerminal();
  for (size_t i = 0; i < kStopSignals.size(); ++i) sigaction(kStopSignals[i], &g_previous[i], nullptr);
}

}  // namespace Qel::Application
