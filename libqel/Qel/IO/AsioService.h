// Internal to the IO implementation files: the event loop behind YService.
// Never include this from a public header; it brings in Boost.Asio.
#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "Qel/IO/YService.h"

namespace Qel::IO {

struct YService::Impl {
  using Guard = boost::asio::executor_work_guard<boost::asio::io_context::executor_type>;

  boost::asio::io_context context;
  std::mutex mutex;  // guards guard and threads
  std::optional<Guard> guard;
  std::vector<std::thread> threads;
};

}  // namespace Qel::IO
