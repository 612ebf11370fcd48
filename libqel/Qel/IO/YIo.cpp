// Transports over Boost.Asio. One class serves both Unix-domain and TCP
// streams through Asio's generic stream protocol. Invariants: every socket
// operation runs on the transport's strand (other threads post to it; code
// already on the strand, such as a read completion that answers, runs
// inline), so at most one thread touches a socket at a time; a connect handler
// runs exactly once (the `done` flag, set on the strand, decides between the
// connect completion and its timer).
#include "Qel/IO/YIo.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <cerrno>
#include <mutex>

#include "Qel/IO/AsioService.h"
#include "Qel/Log/YLog.h"

namespace Qel::IO {

namespace {

namespace asio = boost::asio;
using Generic = asio::generic::stream_protocol;
using Strand = asio::strand<asio::io_context::executor_type>;
using Socket = asio::basic_stream_socket<Generic, Strand>;
using Acceptor = asio::basic_socket_acceptor<Generic, Strand>;

constexpr const char* kFile = "libqel/Qel/IO/YIo";
// A listener that runs out of descriptors waits this long before accepting again.
constexpr auto kAcceptBackoff = std::chrono::milliseconds(100);

Exception::YError OsError(int err, const YString& info, const char* function) {
  Exception::YError e(kLogIo, static_cast<unsigned int>(err), Exception::kOsErrorSubCode, __LINE__, kFile, function);
  e.SetInfo(info);
  return e;
}

Exception::YError FromErrorCode(const boost::system::error_code& ec, const YString& address, const char* function) {
  if (ec == asio::error::eof) return OsError(ECONNRESET, address + ": closed by peer", function);
  if (ec == asio::error::operation_aborted) return OsError(ECANCELED, address + ": cancelled", function);
  if (ec.category() == boost::system::system_category()) return OsError(ec.value(), address, function);
  return OsError(EHOSTUNREACH, address + ": " + ec.message(), function);
}

// "host:port" or "[v6]:port" into its parts; false when malformed.
bool SplitHostPort(const YString& address, std::string& host, std::string& port) {
  if (address.StartsWith("[")) {
    const size_t close = address.find(']');
    if (close == std::string::npos || close + 1 >= address.size() || address[close + 1] != ':') return false;
    host = address.substr(1, close - 1);
    port = address.substr(close + 2);
  } else {
    const size_t colon = address.rfind(':');
    if (colon == std::string::npos) return false;
    host = address.substr(0, colon);
    port = address.substr(colon + 1);
  }
  return !host.empty() && !port.empty() && port.find_first_not_of("0123456789") == std::string::npos;
}

template <class Base>
class SocketIo final : public Base {
 public:
  SocketIo(std::shared_ptr<YService::Impl> service, bool noDelay)
      : service_(std::move(service)),
        strand_(asio::make_strand(service_->context)),
        socket_(strand_),
        timer_(strand_),
        no_delay_(noDelay) {}

  Socket& GetSocket() { return socket_; }

  // Marks an accepted socket open and records its peer.
  void Accepted(const YString& description) {
    std::lock_guard<std::mutex> lock(mutex_);
    description_ = description;
    open_ = true;
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(socket_.native_handle(), SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 && cred.pid != 0) {
      peer_uid_ = cred.uid;
    }
    if (no_delay_) SetNoDelay();
  }

  void ConnectAsync(const YString& address, YConnectedIo::ConnectHandler handler,
                    Time::YDuration timeout) override {
    const bool unix = std::is_same_v<Base, YUnixDomainIo>;
    std::string host, port;
    if (unix && address.size() >= sizeof(sockaddr_un{}.sun_path)) {
      throw OsError(ENAMETOOLONG, address, "ConnectAsync");
    }
    if (!unix && !SplitHostPort(address, host, port)) {
      throw OsError(EINVAL, address + ": expected host:port", "ConnectAsync");
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      description_ = address;
      error_.reset();
    }
    auto self = Self();
    asio::post(strand_, [self, address, handler = std::move(handler), timeout, unix, host, port]() mutable {
      auto done = std::make_shared<bool>(false);
      auto finish = [self, done, handler](const Exception::YError* error) {
        if (*done) return;
        *done = true;
        self->timer_.cancel();
        if (error) {
          self->SetError(*error);
          boost::system::error_code ignored;
          self->socket_.close(ignored);
        } else {
          std::lock_guard<std::mutex> lock(self->mutex_);
          self->open_ = true;
        }
        handler(self, error);
      };
      if (!timeout.IsInfinite()) {
        self->timer_.expires_after(timeout.ToChrono());
        self->timer_.async_wait([finish, address](const boost::system::error_code& ec) {
          if (ec) return;  // cancelled: the connect finished first
          const Exception::YError e = OsError(ETIMEDOUT, address, "ConnectAsync");
          finish(&e);
        });
      }
      if (unix) {
        self->socket_.async_connect(Generic::endpoint(asio::local::stream_protocol::endpoint(address)),
                                    [self, finish, address](const boost::system::error_code& ec) {
                                      if (ec) {
                                        const Exception::YError e = FromErrorCode(ec, address, "ConnectAsync");
                                        finish(&e);
                                      } else {
                                        finish(nullptr);
                                      }
                                    });
        return;
      }
      auto resolver = std::make_shared<asio::ip::tcp::resolver>(self->strand_);
      resolver->async_resolve(
          host, port, [self, finish, address, resolver, done](const boost::system::error_code& ec,
                                                              asio::ip::tcp::resolver::results_type results) {
            if (*done) return;
            if (ec) {
              const Exception::YError e = FromErrorCode(ec, address, "ConnectAsync");
              finish(&e);
              return;
            }
            auto endpoints = std::make_shared<std::vector<Generic::endpoint>>();
            for (const auto& r : results) endpoints->emplace_back(r.endpoint());
            self->TryConnect(endpoints, 0, finish, done, address);
          });
    });
  }

  void ReadSome(char* buffer, size_t size, YIoBase::ReadHandler handler) override {
    auto self = Self();
    asio::dispatch(strand_, [self, buffer, size, handler = std::move(handler)]() mutable {
      self->socket_.async_read_some(asio::buffer(buffer, size),
                                    [self, handler](const boost::system::error_code& ec, size_t n) {
                                      if (ec) {
                                        const Exception::YError e = FromErrorCode(ec, self->Describe(), "ReadSome");
                                        self->SetError(e);
                                        handler(&e, 0);
                                      } else {
                                        handler(nullptr, n);
                                      }
                                    });
    });
  }

  void WriteAll(std::shared_ptr<const std::string> data, YIoBase::WriteHandler handler) override {
    auto self = Self();
    asio::dispatch(strand_, [self, data = std::move(data), handler = std::move(handler)]() mutable {
      asio::async_write(self->socket_, asio::buffer(*data),
                        [self, data, handler](const boost::system::error_code& ec, size_t) {
                          if (ec) {
                            const Exception::YError e = FromErrorCode(ec, self->Describe(), "WriteAll");
                            self->SetError(e);
                            handler(&e);
                          } else {
                            handler(nullptr);
                          }
                        });
    });
  }

  void Close() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (closed_) return;
      closed_ = true;
      open_ = false;
    }
    if (service_->context.stopped()) {
      // Nothing runs the loop: no completion can race with the close.
      CloseNow();
      return;
    }
    auto self = Self();
    asio::post(strand_, [self] { self->CloseNow(); });
  }

  bool IsOpen() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_ && !error_;
  }

  bool HasError(Exception::YError& error) const override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!error_) return false;
    error = *error_;
    return true;
  }

  std::optional<uint32_t> GetPeerUid() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return peer_uid_;
  }

  YString Describe() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return description_;
  }

 private:
  std::shared_ptr<SocketIo> Self() { return std::static_pointer_cast<SocketIo>(this->shared_from_this()); }

  void CloseNow() {
    boost::system::error_code ignored;
    timer_.cancel();
    socket_.shutdown(Socket::shutdown_both, ignored);
    socket_.close(ignored);
  }

  void SetError(const Exception::YError& e) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!error_) error_ = e;
    open_ = false;
  }

  void SetNoDelay() {
    int one = 1;
    ::setsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }

  // Tries endpoints[i..] in order; runs on the strand.
  template <class Finish>
  void TryConnect(std::shared_ptr<std::vector<Generic::endpoint>> endpoints, size_t i, Finish finish,
                  std::shared_ptr<bool> done, const YString& address) {
    if (*done) return;
    if (i >= endpoints->size()) {
      const Exception::YError e = OsError(EHOSTUNREACH, address + ": no address to connect to", "ConnectAsync");
      finish(&e);
      return;
    }
    auto self = Self();
    boost::system::error_code ignored;
    socket_.close(ignored);
    socket_.async_connect((*endpoints)[i], [self, endpoints, i, finish, done, address](
                                               const boost::system::error_code& ec) {
      if (*done) return;
      if (!ec) {
        if (self->no_delay_) self->SetNoDelay();
        finish(nullptr);
      } else if (i + 1 < endpoints->size()) {
        self->TryConnect(endpoints, i + 1, finish, done, address);
      } else {
        const Exception::YError e = FromErrorCode(ec, address, "ConnectAsync");
        finish(&e);
      }
    });
  }

  std::shared_ptr<YService::Impl> service_;
  Strand strand_;
  Socket socket_;
  asio::steady_timer timer_;
  bool no_delay_;
  mutable std::mutex mutex_;  // guards the members below
  bool open_ = false;
  bool closed_ = false;
  std::optional<Exception::YError> error_;
  std::optional<uint32_t> peer_uid_;
  YString description_;
};

using UnixIo = SocketIo<YUnixDomainIo>;
using TcpIo = SocketIo<YTcpIo>;

class SocketListener final : public YListener, public std::enable_shared_from_this<SocketListener> {
 public:
  SocketListener(std::shared_ptr<YService::Impl> service, bool unix, YString address)
      : service_(std::move(service)), strand_(asio::make_strand(service_->context)), acceptor_(strand_),
        backoff_(strand_), unix_(unix), address_(std::move(address)) {}

  void Bind(unsigned int mode) {
    boost::system::error_code ec;
    Generic::endpoint endpoint;
    if (unix_) {
      if (address_.size() >= sizeof(sockaddr_un{}.sun_path)) throw OsError(ENAMETOOLONG, address_, "CreateUnix");
      struct stat st{};
      if (::lstat(address_.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) throw OsError(EEXIST, address_ + ": exists and is not a socket", "CreateUnix");
        ::unlink(address_.c_str());
      }
      endpoint = Generic::endpoint(asio::local::stream_protocol::endpoint(address_));
    } else {
      std::string host, port;
      if (!SplitHostPort(address_, host, port)) throw OsError(EINVAL, address_ + ": expected host:port", "CreateTcp");
      const auto ip = asio::ip::make_address(host, ec);
      if (ec) throw OsError(EINVAL, address_ + ": not an IP address", "CreateTcp");
      endpoint = Generic::endpoint(asio::ip::tcp::endpoint(ip, static_cast<unsigned short>(std::stoul(port))));
    }
    acceptor_.open(endpoint.protocol(), ec);
    if (!ec && !unix_) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec) acceptor_.bind(endpoint, ec);
    if (ec) throw FromErrorCode(ec, address_, unix_ ? "CreateUnix" : "CreateTcp");
    if (unix_ && ::chmod(address_.c_str(), mode) != 0) throw OsError(errno, address_, "CreateUnix");
    acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) throw FromErrorCode(ec, address_, unix_ ? "CreateUnix" : "CreateTcp");
    if (!unix_) {
      asio::ip::tcp::endpoint bound;
      std::memcpy(bound.data(), acceptor_.local_endpoint().data(), acceptor_.local_endpoint().size());
      const std::string host = bound.address().to_string();
      address_ = (bound.address().is_v6() ? "[" + host + "]" : host) + ":" + std::to_string(bound.port());
    }
  }

  void Start(AcceptHandler handler) override {
    auto self = shared_from_this();
    asio::post(strand_, [self, handler = std::move(handler)] {
      self->handler_ = handler;
      self->AcceptNext();
    });
  }

  void Close() override {
    auto self = shared_from_this();
    if (service_->context.stopped()) {
      CloseNow();
      return;
    }
    asio::post(strand_, [self] { self->CloseNow(); });
  }

  YString GetAddress() const override { return address_; }

 private:
  void CloseNow() {
    boost::system::error_code ignored;
    backoff_.cancel();
    if (!acceptor_.is_open()) return;
    acceptor_.close(ignored);
    if (unix_) ::unlink(address_.c_str());
  }

  // Runs on the strand.
  void AcceptNext() {
    if (!acceptor_.is_open()) return;
    std::shared_ptr<YIoBase> io;
    Socket* socket = nullptr;
    if (unix_) {
      auto u = std::make_shared<UnixIo>(service_, false);
      socket = &u->GetSocket();
      io = u;
    } else {
      auto t = std::make_shared<TcpIo>(service_, true);
      socket = &t->GetSocket();
      io = t;
    }
    auto self = shared_from_this();
    acceptor_.async_accept(*socket, [self, io](const boost::system::error_code& ec) {
      if (ec == asio::error::operation_aborted || !self->acceptor_.is_open()) return;
      if (ec) {
        Log::GetGlobalLogger().Write(kLogIo, "Accept on " + self->address_ + " failed: " + ec.message());
        self->backoff_.expires_after(kAcceptBackoff);
        self->backoff_.async_wait([self](const boost::system::error_code& e) {
          if (!e) self->AcceptNext();
        });
        return;
      }
      const YString description = self->address_ + " (accepted)";
      if (auto u = std::dynamic_pointer_cast<UnixIo>(io)) u->Accepted(description);
      else if (auto t = std::dynamic_pointer_cast<TcpIo>(io)) t->Accepted(description);
      AcceptHandler handler = self->handler_;
      self->AcceptNext();
      if (handler) handler(io);
    });
  }

  std::shared_ptr<YService::Impl> service_;
  Strand strand_;
  Acceptor acceptor_;
  asio::steady_timer backoff_;
  bool unix_;
  YString address_;
  AcceptHandler handler_;
};

}  // namespace

std::shared_ptr<YUnixDomainIo> YUnixDomainIo::Create(YService& service) {
  return std::make_shared<UnixIo>(service.GetImpl(), false);
}

std::shared_ptr<YTcpIo> YTcpIo::Create(YService& service, bool noDelay) {
  return std::make_shared<TcpIo>(service.GetImpl(), noDelay);
}

std::shared_ptr<YListener> YListener::CreateUnix(YService& service, const YString& path, unsigned int mode) {
  auto listener = std::make_shared<SocketListener>(service.GetImpl(), true, path);
  listener->Bind(mode);
  return listener;
}

std::shared_ptr<YListener> YListener::CreateTcp(YService& service, const YString& address) {
  auto listener = std::make_shared<SocketListener>(service.GetImpl(), false, address);
  listener->Bind(0);
  return listener;
}

}  // namespace Qel::IO
