// Qel::IO transports: YIoBase (a byte stream), YConnectedIo (one that
// connects), YUnixDomainIo and YTcpIo, and YListener (the server side).
//
// Transports are always held by std::shared_ptr (use Create). Their
// completions run on the YService's threads and hold a shared pointer to the
// transport while pending. Close() cancels what is pending (the completions
// then see an error) and is idempotent. After a failure HasError reports it
// until the transport is closed.
//
// Addresses: a YUnixDomainIo connects to a socket path; a YTcpIo to
// "host:port" (a name or an IPv4/IPv6 literal, "[::1]:8446" for IPv6).
// Connection errors are YErrors with the system's error number (sub-code 3),
// ETIMEDOUT when the time limit passes, and the address as info.
//
// Thread-safety: every operation may be called from any thread; at most one
// read and one write may be pending at a time (the session guarantees it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Qel/Exception/YError.h"
#include "Qel/IO/YService.h"
#include "Qel/Time/YTime.h"
#include "Qel/YString.h"

namespace Qel::IO {

class YIoBase : public std::enable_shared_from_this<YIoBase> {
 public:
  // `error` is null on success.
  using ReadHandler = std::function<void(const Exception::YError* error, size_t bytes)>;
  using WriteHandler = std::function<void(const Exception::YError* error)>;

  virtual ~YIoBase() = default;

  // Reads at least one byte into [buffer, buffer + size). The end of the
  // stream is an error (ECONNRESET info "closed by peer").
  virtual void ReadSome(char* buffer, size_t size, ReadHandler handler) = 0;
  // Writes all of `data`.
  virtual void WriteAll(std::shared_ptr<const std::string> data, WriteHandler handler) = 0;
  virtual void Close() = 0;
  virtual bool IsOpen() const = 0;
  // The transport's error state: true and `error` filled when it failed.
  virtual bool HasError(Exception::YError& error) const = 0;
  // The peer's user id (Unix-domain sockets only).
  virtual std::optional<uint32_t> GetPeerUid() const { return std::nullopt; }
  // A short description for logs: the address and the side.
  virtual YString Describe() const = 0;
};

class YConnectedIo : public YIoBase {
 public:
  // `error` is null on success; `io` is this transport.
  using ConnectHandler = std::function<void(std::shared_ptr<YIoBase> io, const Exception::YError* error)>;
  // Starts connecting to `address`; `handler` runs exactly once. Raises when
  // the address cannot be used at all (a path too long for a socket).
  virtual void ConnectAsync(const YString& address, ConnectHandler handler, Time::YDuration timeout) = 0;
};

class YUnixDomainIo : public YConnectedIo {
 public:
  static std::shared_ptr<YUnixDomainIo> Create(YService& service);
};

class YTcpIo : public YConnectedIo {
 public:
  // `noDelay` turns off Nagle's algorithm (requests are small and waited on).
  static std::shared_ptr<YTcpIo> Create(YService& service, bool noDelay = true);
};

// The server side: accepts connections on a Unix-domain socket path or a TCP
// address and hands each one, as a transport, to the accept handler (on a
// service thread). Accepting goes on until Close.
class YListener {
 public:
  using AcceptHandler = std::function<void(std::shared_ptr<YIoBase> io)>;

  virtual ~YListener() = default;
  // Binds `path` (an existing socket file is replaced) and sets its mode.
  static std::shared_ptr<YListener> CreateUnix(YService& service, const YString& path, unsigned int mode);
  // Binds "host:port"; port 0 picks a free port (GetAddress tells it).
  static std::shared_ptr<YListener> CreateTcp(YService& service, const YString& address);

  virtual void Start(AcceptHandler handler) = 0;
  virtual void Close() = 0;
  // The bound path, or "host:port" with the real port.
  virtual YString GetAddress() const = 0;
};

}  // namespace Qel::IO
