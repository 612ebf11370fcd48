// Qel::Foundation::YInitContext: the process initialisation scope.
//
// Open one on the stack of main() for the whole run. It does only what every
// program needs (standard streams, SIGPIPE ignored so that a closed pipe is an
// error return, not a death) and flushes the console when it closes; libraries
// that need global set-up (TLS, HTTP) initialise themselves on first use, so
// start-up stays cheap. Not copyable; one per process.
#pragma once

namespace Qel::Foundation {

class YInitContext {
 public:
  YInitContext();
  ~YInitContext();
  YInitContext(const YInitContext&) = delete;
  YInitContext& operator=(const YInitContext&) = delete;
};

}  // namespace Qel::Foundation
