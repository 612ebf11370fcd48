// Qel::IO::YService: the asynchronous IO engine (an event loop run by N
// threads), its work queue and one-shot timers.
//
// Initialize(n) starts n threads running the loop (again after Deinitialize
// is fine); Deinitialize stops the loop, joins the threads and drops what was
// still queued. Transports (YUnixDomainIo, YTcpIo, YListener) are created on a
// service and their completions run on its threads. The event loop itself
// stays inside the IO implementation files; this header carries none of it.
//
// Thread-safety: every operation may be called from any thread, except that
// Deinitialize must not be called from one of the service's own threads.
#pragma once

#include <functional>
#include <memory>

#include "Qel/IO/IoLog.h"
#include "Qel/Time/YTime.h"

namespace Qel::IO {

class YService {
 public:
  YService();
  ~YService();
  YService(const YService&) = delete;
  YService& operator=(const YService&) = delete;

  // Starts `threads` loop threads unless already running.
  void Initialize(unsigned int threads);
  void Deinitialize();
  bool IsRunning() const;

  // Runs `work` on a service thread.
  void Post(std::function<void()> work);
  // Runs `work` once, `after` from now, on a service thread.
  void RunAfter(Time::YDuration after, std::function<void()> work);

  // The implementation, for the IO implementation files only.
  // Transports keep it alive, so a transport may outlive its service object.
  struct Impl;
  const std::shared_ptr<Impl>& GetImpl() const { return impl_; }

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace Qel::IO
