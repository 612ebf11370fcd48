// Path-status requests over the agent's overlay socket.
//
//   ZARNU_OVERLAY_SOCKET=<socket> zarnu_overlay_bench
//
// BM_RawSocketPairRoundTrip: the machine's floor, one small message each way
//   through a Unix socket pair between two threads.
// BM_PathStatusRoundTrip: one "overlay_path_status_sync" request and its reply,
//   waited for, over one session (what a file manager asking one path pays).
// BM_PathStatusBurst: 10,000 requests from one client sent without waiting,
//   then all replies awaited (the rate a directory listing can reach).
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <thread>

#include "Qel/IO/YIo.h"
#include "Qel/IO/YService.h"
#include "Qel/IO/YSession.h"

namespace {

constexpr int kBurst = 10000;

Qel::IO::YCommandPtr StatusRequest() {
  auto request = Qel::IO::YCommand::CreateRequest("overlay_path_status_sync");
  request->SetParam("file_path", Qel::JSON::YValue("/home/user/Zarnu/documents/report.odt"));
  return request;
}

struct Client {
  Qel::IO::YService service;
  std::shared_ptr<Qel::IO::YSession> session;

  bool Connect() {
    const char* path = std::getenv("ZARNU_OVERLAY_SOCKET");
    if (!path) return false;
    service.Initialize(1);
    auto io = Qel::IO::YUnixDomainIo::Create(service);
    std::promise<bool> done;
    io->ConnectAsync(
        path, [&done](std::shared_ptr<Qel::IO::YIoBase>, const Qel::Exception::YError* e) { done.set_value(!e); },
        Qel::Time::YDuration::Seconds(5));
    if (!done.get_future().get()) return false;
    session = std::make_shared<Qel::IO::YSession>(nullptr);
    session->Allocate(io);
    return true;
  }
};

void BM_RawSocketPairRoundTrip(benchmark::State& state) {
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  std::thread echo([fd = fds[1]] {
    char buf[256];
    for (;;) {
      const ssize_t n = ::read(fd, buf, sizeof buf);
      if (n <= 0 || ::write(fd, buf, n) != n) return;
    }
  });
  char msg[120] = {1};
  for (auto _ : state) {
    if (::write(fds[0], msg, sizeof msg) != sizeof msg) break;
    size_t got = 0;
    while (got < sizeof msg) {
      const ssize_t n = ::read(fds[0], msg + got, sizeof msg - got);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
  }
  ::close(fds[0]);
  echo.join();
  ::close(fds[1]);
}
BENCHMARK(BM_RawSocketPairRoundTrip)->UseRealTime();

void BM_PathStatusRoundTrip(benchmark::State& state) {
  Client client;
  if (!client.Connect()) {
    state.SkipWithError("no agent at $ZARNU_OVERLAY_SOCKET");
    return;
  }
  for (auto _ : state) {
    auto reply = client.session->ProcessRequest(StatusRequest(), Qel::Time::YDuration::Seconds(3));
    benchmark::DoNotOptimize(reply);
  }
  client.session->Release();
}
BENCHMARK(BM_PathStatusRoundTrip)->UseRealTime();

void BM_PathStatusBurst(benchmark::State& state) {
  Client client;
  if (!client.Connect()) {
    state.SkipWithError("no agent at $ZARNU_OVERLAY_SOCKET");
    return;
  }
  for (auto _ : state) {
    std::mutex mutex;
    std::condition_variable cv;
    int answered = 0;
    int failed = 0;
    for (int i = 0; i < kBurst; ++i) {
      client.session->ProcessRequestAsync(
          StatusRequest(), [&](std::shared_ptr<Qel::IO::YSession>, Qel::IO::YCommandPtr, const Qel::Exception::YError* e) {
            std::lock_guard<std::mutex> lock(mutex);
            ++answered;
            if (e) ++failed;
            cv.notify_one();
          });
    }
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [&] { return answered == kBurst; });
    if (failed) state.SkipWithError("requests failed");
  }
  state.counters["requests_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * kBurst, benchmark::Counter::kIsRate);
  client.session->Release();
}
BENCHMARK(BM_PathStatusBurst)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
