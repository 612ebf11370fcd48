// Qel::Thread::YThread: a named thread with a termination request, and the
// sleeps and checks that honour it.
//
// A YThread runs its body once per Start (Start on a running thread does
// nothing). RequestTermination() sets a flag the body polls with
// TerminateCheck() or IsTerminationRequested(); Join() waits for the body.
// The destructor requests termination and joins. The main thread (or any
// thread not started by YThread) is covered by the process-wide termination
// request, which signal handlers may set (RequestProcessTermination is
// async-signal-safe).
//
// Thread-safety: every operation may be called from any thread, except that
// Join must not be called from the thread itself.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "Qel/Time/YTime.h"
#include "Qel/YString.h"

namespace Qel::Thread {

// Error code of a termination request seen by TerminateCheck.
inline constexpr unsigned int kTerminationRequested = 65;

class YThread {
 public:
  YThread(const YString& name, std::function<void()> body);
  ~YThread();
  YThread(const YThread&) = delete;
  YThread& operator=(const YThread&) = delete;

  // Starts the body on a new thread unless it is already running. A thread
  // whose body has returned may be started again.
  void Start();
  bool IsRunning() const;
  void RequestTermination();
  bool IsTerminationRequested() const { return terminate_.load(); }
  // Waits for the body to return (no-op when not started or on the thread
  // itself).
  void Join();
  const YString& GetName() const { return name_; }

  // The YThread running the calling code, or nullptr on other threads.
  static YThread* Current();

 private:
  YString name_;
  std::function<void()> body_;
  std::atomic<bool> terminate_{false};
  std::atomic<bool> running_{false};
  mutable std::mutex mutex_;
  std::thread thread_;
};

// Sets / reads the process-wide termination request (for threads that are not
// YThreads, chiefly the main thread). Async-signal-safe.
void RequestProcessTermination();
bool IsProcessTerminationRequested();
void ClearProcessTerminationRequest();

// True when the calling thread has been asked to end: its YThread's request,
// or the process-wide request.
bool IsTerminationRequested();

// Raises code 65 (kTerminationRequested, log type 15, function
// "TerminateCheck") when IsTerminationRequested().
void TerminateCheck();

}  // namespace Qel::Thread

// Sleeps `milliseconds` in slices of at most 50 ms and returns early (false)
// when the calling thread is asked to terminate; true after a full sleep.
bool qel_sleep(unsigned int milliseconds);
