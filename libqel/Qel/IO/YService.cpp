#include "Qel/IO/YService.h"

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "Qel/Exception/YError.h"
#include "Qel/IO/AsioService.h"
#include "Qel/Log/YLog.h"

namespace Qel::IO {

YService::YService() : impl_(std::make_shared<Impl>()) {}

YService::~YService() { Deinitialize(); }

void YService::Initialize(unsigned int threads) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->threads.empty()) return;
  impl_->context.restart();
  impl_->guard.emplace(impl_->context.get_executor());
  if (threads == 0) threads = 1;
  for (unsigned int i = 0; i < threads; ++i) {
    impl_->threads.emplace_back([impl = impl_] {
      for (;;) {
        try {
          impl->context.run();
          return;
        } catch (const Exception::YError& e) {
          Log::GetGlobalLogger().Write(kLogIo, "IO handler failed: " + e.GetDetailedSummary());
        } catch (const std::exception& e) {
          Log::GetGlobalLogger().Write(kLogIo, YString("IO handler failed: ") + e.what());
        }
      }
    });
  }
}

void YService::Deinitialize() {
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->guard.reset();
    impl_->context.stop();
    threads.swap(impl_->threads);
  }
  for (std::thread& t : threads) {
    if (t.get_id() == std::this_thread::get_id()) t.detach();
    else t.join();
  }
}

bool YService::IsRunning() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return !impl_->threads.empty();
}

void YService::Post(std::function<void()> work) { boost::asio::post(impl_->context, std::move(work)); }

void YService::RunAfter(Time::YDuration after, std::function<void()> work) {
  auto timer = std::make_shared<boost::asio::steady_timer>(impl_->context);
  timer->expires_after(after.ToChrono());
  timer->async_wait([timer, work = std::move(work)](const boost::system::error_code& ec) {
    if (!ec) work();
  });
}

}  // namespace Qel::IO
