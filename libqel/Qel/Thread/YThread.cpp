// Threads and termination requests. Invariant: `running_` is true from Start
// until the body has returned; the std::thread is joined before it is
// replaced or destroyed.
#include "Qel/Thread/YThread.h"

#include "Qel/Exception/YError.h"
#include "Qel/Log/YLog.h"

namespace Qel::Thread {

namespace {

constexpr unsigned int kLogShell = 15;
constexpr unsigned int kLogRuntime = 43;

thread_local YThread* tCurrent = nullptr;
std::atomic<bool> gProcessTermination{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the termination flag is set from signal handlers");

}  // namespace

YThread::YThread(const YString& name, std::function<void()> body) : name_(name), body_(std::move(body)) {}

YThread::~YThread() {
  RequestTermination();
  Join();
}

void YThread::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (running_.load()) return;
  if (thread_.joinable()) thread_.join();
  terminate_ = false;
  running_ = true;
  thread_ = std::thread([this] {
    tCurrent = this;
    try {
      body_();
    } catch (const Exception::YError& e) {
      Log::GetGlobalLogger().Write(kLogRuntime, "Thread " + name_ + " ended by " + e.GetDetailedSummary());
    } catch (const std::exception& e) {
      Log::GetGlobalLogger().Write(kLogRuntime, "Thread " + name_ + " ended by " + e.what());
    }
    tCurrent = nullptr;
    running_ = false;
  });
}

bool YThread::IsRunning() const { return running_.load(); }

void YThread::RequestTermination() { terminate_ = true; }

void YThread::Join() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!thread_.joinable() || thread_.get_id() == std::this_thread::get_id()) return;
  thread_.join();
}

YThread* YThread::Current() { return tCurrent; }

void RequestProcessTermination() { gProcessTermination.store(true); }
bool IsProcessTerminationRequested() { return gProcessTermination.load(); }
void ClearProcessTerminationRequest() { gProcessTermination.store(false); }

bool IsTerminationRequested() {
  if (gProcessTermination.load()) return true;
  YThread* t = YThread::Current();
  return t != nullptr && t->IsTerminationRequested();
}

void TerminateCheck() {
  if (!IsTerminationRequested()) return;
  YThread* t = YThread::Current();
  QEL_RAISE(kLogShell, kTerminationRequested, t ? "thread " + t->GetName() : YString("process"),
            "libqel/Qel/Thread/YThread", "TerminateCheck");
}

}  // namespace Qel::Thread

bool qel_sleep(unsigned int milliseconds) {
  using Clock = std::chrono::steady_clock;
  constexpr auto kSlice = std::chrono::milliseconds(50);
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
  for (;;) {
    if (Qel::Thread::IsTerminationRequested()) return false;
    const Clock::time_point now = Clock::now();
    if (now >= end) return true;
    std::this_thread::sleep_for(std::min<Clock::duration>(end - now, kSlice));
  }
}
