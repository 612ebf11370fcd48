// The log message type of the runtime's IO layer (transports, sessions,
// frames). Errors raised by the IO layer carry it.
#pragma once

namespace Qel::IO {

inline constexpr unsigned int kLogIo = 44;

}  // namespace Qel::IO
