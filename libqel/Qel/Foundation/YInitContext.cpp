#include "Qel/Foundation/YInitContext.h"

#include <csignal>
#include <cstdio>

namespace Qel::Foundation {

YInitContext::YInitContext() { std::signal(SIGPIPE, SIG_IGN); }

YInitContext::~YInitContext() {
  std::fflush(stdout);
  std::fflush(stderr);
}

}  // namespace Qel::Foundation
