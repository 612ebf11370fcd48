#include "HttpServer.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <sys/resource.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <limits>
#include <map>
#include <memory>
#include <cstdio>
#include <mutex>
#include <optional>
#include <thread>

namespace zarnu::cloud {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;

namespace {

constexpr auto kIdleTimeout = std::chrono::seconds(60);
constexpr auto kFirstHeaderTimeout = std::chrono::seconds(10);
constexpr auto kHandshakeTimeout = std::chrono::seconds(10);
constexpr auto kReadStallTimeout = std::chrono::seconds(20);
constexpr auto kReadRearmEvery = std::chrono::seconds(1);
constexpr auto kRateGrace = std::chrono::seconds(10);
constexpr std::uint64_t kMinBytesPerSecond = 16 * 1024;
constexpr auto kWriteStallTimeout = std::chrono::seconds(30);
constexpr auto kLingerTimeout = std::chrono::seconds(5);
constexpr auto kFirstAcceptBackoff = std::chrono::milliseconds(10);
constexpr auto kMaxAcceptBackoff = std::chrono::seconds(1);
constexpr std::uint32_t kHeaderLimit = 16 * 1024;
constexpr std::size_t kReadChunk = 1024 * 1024;
/// Bodies up to this size are read before the credential is checked (with the request).
constexpr std::uint64_t kReadBeforeCheck = 64 * 1024;
constexpr std::size_t kDefaultMaxConnections = 4096;
/// At the cap, how many connections past it may be open while idle ones are closed.
constexpr std::size_t kEvictionSlack = 64;
/// Descriptors kept for everything but connections: part files being sent (up to 100
/// per answer), the database, logs.
constexpr rlim_t kReservedDescriptors = 256;
constexpr int kCodeTooLarge = 175;
constexpr int kCodeBadInput = 55;
constexpr int kCodeTooSlow = 222;

std::mutex logMutex;

void logLine(const std::string& line) {
    std::lock_guard lock(logMutex);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

std::string peerAddressOf(const net::ip::address& a) {
    if (a.is_v6() && a.to_v6().is_v4_mapped()) return net::ip::make_address_v4(net::ip::v4_mapped, a.to_v6()).to_string();
    return a.to_string();
}

// Raises the soft descriptor limit to the hard one; returns the limit in force.
rlim_t raiseDescriptorLimit() {
    rlimit lim{};
    if (::getrlimit(RLIMIT_NOFILE, &lim) != 0) return 1024;
    if (lim.rlim_cur < lim.rlim_max) {
        rlimit raised = lim;
        raised.rlim_cur = lim.rlim_max;
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) lim = raised;
    }
    return lim.rlim_cur;
}

HttpResponse plainError(int status, int code, const char* message) {
    HttpResponse r;
    r.status = status;
    r.body = std::string(R"({"error":{"code":)") + std::to_string(code) + R"(,"message":")" + message + R"("}})";
    return r;
}

}  // namespace

namespace {

/// A connection as the cap sees it while it waits for a request: it may be closed to
/// make room for a new one.
class IdleConnection {
public:
    virtual ~IdleConnection() = default;
    /// Closes the connection if it is still idle under `idleId` (runs on its strand).
    virtual void evict(std::uint64_t idleId) = 0;
};

}  // namespace

struct HttpServer::Impl {
    // The connection cap: `connections` open; accepting pauses at the cap. Declared
    // first: connections that die with the I/O context still release their place.
    std::mutex capMutex;
    std::size_t connections = 0;
    std::size_t maxConnections = kDefaultMaxConnections;
    bool acceptPaused = false;
    std::atomic<bool> stopping{false};
    // Connections waiting for a request, oldest first: those that never sent one, and
    // kept-alive ones. At the cap the oldest is closed to make room, never a connection
    // in the middle of a request.
    std::map<std::uint64_t, std::weak_ptr<IdleConnection>> freshIdle;
    std::map<std::uint64_t, std::weak_ptr<IdleConnection>> keptIdle;
    std::uint64_t nextIdleId = 1;
    // A connection accepted past the cap while every other was in a request: it waits,
    // unread, for the first place to free up (accepting pauses meanwhile).
    struct Parked {
        tcp::socket socket;
        std::string peerAddress;
    };
    std::optional<Parked> parked;

    Options options;
    Handler handler;
    Limits limits;
    CheckCredential checkCredential;
    KnownCredential knownCredential;
    LogPath logPath;
    net::io_context ioc;
    std::optional<ssl::context> sslContext;
    tcp::acceptor acceptor{ioc};
    net::steady_timer acceptTimer{ioc};
    std::chrono::milliseconds acceptBackoff{0};
    net::thread_pool workers;
    net::thread_pool longWorkers;
    net::thread_pool loginWorkers;
    net::signal_set signals{ioc, SIGINT, SIGTERM};

    Impl(Options o, Handler h, Limits l, CheckCredential c, KnownCredential k, LogPath p)
        : options(std::move(o)), handler(std::move(h)), limits(std::move(l)), checkCredential(std::move(c)),
          knownCredential(std::move(k)), logPath(std::move(p)), workers(options.workerThreads ? options.workerThreads : 1),
          longWorkers(std::max(1u, options.longRequestThreads)), loginWorkers(std::max(1u, options.loginThreads)) {}

    net::thread_pool& pool(Lane lane) {
        switch (lane) {
        case Lane::Long: return longWorkers;
        case Lane::Login: return loginWorkers;
        case Lane::Normal: break;
        }
        return workers;
    }

    void accept();
    void onAccepted(beast::error_code ec, tcp::socket socket);
    void startSession(tcp::socket socket, std::string peerAddress);
    /// A connection closed: frees its place and resumes accepting when it had paused.
    void releaseConnection();
    /// A connection waits for a request (fresh: its first); returns its idle id, or 0
    /// when it was closed at once to make room for a parked connection.
    std::uint64_t markIdle(std::weak_ptr<IdleConnection> connection, bool fresh);
    /// The connection with this idle id has a request (or is gone); 0 is ignored.
    void markBusy(std::uint64_t idleId);
    /// Removes and returns the oldest idle connection (fresh ones first); capMutex held.
    std::pair<std::shared_ptr<IdleConnection>, std::uint64_t> takeOldestIdle();
};

namespace {

// Holds one place under the connection cap for as long as a connection lives.
class ConnectionSlot {
public:
    explicit ConnectionSlot(HttpServer::Impl& server) : server_(server) {}
    ~ConnectionSlot() { server_.releaseConnection(); }
    ConnectionSlot(const ConnectionSlot&) = delete;
    ConnectionSlot& operator=(const ConnectionSlot&) = delete;

private:
    HttpServer::Impl& server_;
};

// One connection. Derived provides stream(), close() and sendSlices(); everything runs on
// the connection's strand except the request handler, the credential check and file
// reads, which run on the worker pools.
template <class Derived>
class Session : public IdleConnection {
public:
    Session(HttpServer::Impl& server, std::string peerAddress)
        : server_(server), slot_(server), peerAddress_(std::move(peerAddress)) {}
    ~Session() override { server_.markBusy(idleId_); }

    void evict(std::uint64_t idleId) override {
        net::post(self().stream().get_executor(), [s = self().shared_from_this(), idleId] {
            if (s->idleId_ != idleId) return;  // it has a request by now
            s->idleId_ = 0;
            beast::error_code ec;
            s->lowest().socket().close(ec);  // the pending read ends, and the connection with it
        });
    }

protected:
    Derived& self() { return static_cast<Derived&>(*this); }
    auto& lowest() { return beast::get_lowest_layer(self().stream()); }

    void readRequest() {
        // The body lands in the previous request's string: its memory is reused, so a
        // batch of parts does not touch fresh pages on every request.
        spareBody_.clear();
        parser_.emplace(std::piecewise_construct, std::make_tuple(std::move(spareBody_)));
        parser_->header_limit(kHeaderLimit);
        // Beast reads at most the buffer's free capacity (512 bytes when it is
        // empty); with 1 MiB free a part batch is read in 64 KiB pieces.
        if (buffer_.capacity() - buffer_.size() < kReadChunk) buffer_.reserve(buffer_.size() + kReadChunk);
        parser_->body_limit(std::numeric_limits<std::uint64_t>::max());  // narrowed once the target is known
        // A new connection must say what it wants at once; a kept-alive one may idle.
        lowest().expires_after(requests_ == 0 ? kFirstHeaderTimeout : kIdleTimeout);
        idleId_ = server_.markIdle(self().weak_from_this(), requests_ == 0);
        if (!idleId_) {
            // Closed to make room for a connection waiting past the cap.
            beast::error_code ec;
            lowest().socket().close(ec);
        }
        http::async_read_header(self().stream(), buffer_, *parser_,
                                [s = self().shared_from_this()](beast::error_code ec, std::size_t) {
                                    s->onHeader(ec);
                                });
    }

private:
    void onHeader(beast::error_code ec) {
        server_.markBusy(idleId_);
        idleId_ = 0;
        if (ec == http::error::end_of_stream) return self().close();
        if (ec) return failRead(ec);
        ++requests_;
        start_ = std::chrono::steady_clock::now();
        auto& req = parser_->get();
        method_ = std::string(req.method_string());
        std::string_view target = req.target();
        path_ = std::string(target.substr(0, target.find('?')));
        const RouteLimits limits = server_.limits(method_, path_);
        lane_ = limits.lane;
        const auto length = parser_->content_length();
        if (length && *length > limits.bodyLimit)
            return respondAndClose(plainError(413, kCodeTooLarge, "The request is too large"));
        parser_->body_limit(limits.bodyLimit);
        if (length) req.body().reserve(static_cast<std::size_t>(*length));

        auto head = std::make_shared<HttpRequest>();
        head->method = method_;
        head->path = path_;
        head->authorization = std::string(req[http::field::authorization]);
        head->host = std::string(req[http::field::host]);
        head->peerAddress = peerAddress_;
        head->tls = Derived::kTls;
        const bool largeBody = parser_->chunked() || (length && *length > kReadBeforeCheck);
        if (limits.needsToken && largeBody && !server_.knownCredential(*head)) {
            // The credential first: a stranger's large body is never read. (A batch of
            // uploads pays for this once, not on every batch.)
            lowest().expires_never();
            net::post(server_.workers, [s = self().shared_from_this(), head] {
                auto refusal = s->server_.checkCredential(*head);
                net::post(s->self().stream().get_executor(), [s, head, refusal = std::move(refusal)]() mutable {
                    if (refusal) return s->respondAndClose(std::move(*refusal));
                    s->startBody(std::move(head));
                });
            });
            return;
        }
        startBody(std::move(head));
    }

    void startBody(std::shared_ptr<HttpRequest> head) {
        head_ = std::move(head);
        bodyStart_ = std::chrono::steady_clock::now();
        bodyBytes_ = 0;
        readArmedAt_ = {};
        if (beast::iequals(parser_->get()[http::field::expect], "100-continue")) {
            auto cont = std::make_shared<http::response<http::empty_body>>(http::status::continue_, 11);
            lowest().expires_after(kWriteStallTimeout);
            http::async_write(self().stream(), *cont,
                              [s = self().shared_from_this(), cont](beast::error_code ec, std::size_t) {
                                  if (ec) return s->self().close();
                                  s->readBody();
                              });
            return;
        }
        readBody();
    }

    // The body piece by piece: each read must complete within the stall time-out and,
    // past the grace time, the body must come at the minimum rate.
    void readBody() {
        if (parser_->is_done()) return onBody();
        // Re-arming the timer on every 64 KiB read would cost a fast upload; once a
        // second is as good for a 20 s stall limit.
        const auto now = std::chrono::steady_clock::now();
        if (now - readArmedAt_ >= kReadRearmEvery) {
            lowest().expires_after(kReadStallTimeout);
            readArmedAt_ = now;
        }
        http::async_read_some(self().stream(), buffer_, *parser_,
                              [s = self().shared_from_this()](beast::error_code ec, std::size_t n) {
                                  if (ec) return s->failRead(ec);
                                  s->bodyBytes_ += n;
                                  const auto elapsed = std::chrono::steady_clock::now() - s->bodyStart_;
                                  if (!s->parser_->is_done() && elapsed > kRateGrace) {
                                      const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed);
                                      if (s->bodyBytes_ * 1000 < kMinBytesPerSecond * static_cast<std::uint64_t>(ms.count()))
                                          return s->respondAndClose(
                                              plainError(408, kCodeTooSlow, "The request was sent too slowly"));
                                  }
                                  s->readBody();
                              });
    }

    // A read that timed out has closed the socket (Beast's tcp_stream does): there is no
    // one left to answer.
    void failRead(beast::error_code ec) {
        if (ec == http::error::body_limit || ec == http::error::header_limit)
            return respondAndClose(plainError(413, kCodeTooLarge, "The request is too large"));
        if (ec.category() == http::make_error_code(http::error::bad_target).category())
            return respondAndClose(plainError(400, kCodeBadInput, "Malformed HTTP request"));
        self().close();
    }

    void onBody() {
        auto& req = parser_->get();
        keepAlive_ = req.keep_alive();
        std::shared_ptr<HttpRequest> request = std::move(head_);
        request->body = std::move(req.body());
        lowest().expires_never();
        net::post(server_.pool(lane_), [s = self().shared_from_this(), request] {
            auto response = std::make_shared<HttpResponse>(s->server_.handler(*request));
            net::post(s->self().stream().get_executor(), [s, response, request] {
                s->spareBody_ = std::move(request->body);
                s->write(std::move(*response));
            });
        });
    }

    void respondAndClose(HttpResponse r) {
        keepAlive_ = false;
        head_.reset();
        if (method_.empty()) method_ = "-";
        write(std::move(r));
    }

    void write(HttpResponse r) {
        status_ = r.status;
        if (r.stream) return writeStream(std::move(r));
        if (!r.files.empty()) return writeWithFiles(std::move(r));
        auto msg = std::make_shared<http::response<http::string_body>>();
        fillHead(*msg, r);
        msg->body() = std::move(r.body);
        msg->keep_alive(keepAlive_);
        msg->prepare_payload();
        lowest().expires_after(kWriteStallTimeout);
        http::async_write(self().stream(), *msg,
                          [s = self().shared_from_this(), msg](beast::error_code ec, std::size_t) {
                              s->onWritten(ec, msg->body().size());
                          });
    }

    struct Streaming {
        http::response<http::buffer_body> res;
        std::optional<http::response_serializer<http::buffer_body>> serializer;
        std::unique_ptr<BodySource> source;
        std::string chunk;
        std::uint64_t sent = 0;
    };

    // Status, version and the header fields every answer carries.
    template <class Message>
    static void fillHead(Message& m, const HttpResponse& r) {
        m.result(static_cast<http::status>(r.status));
        m.version(11);
        m.set(http::field::server, "zarnu-cloud");
        m.set(http::field::content_type, r.contentType);
        for (auto& [name, value] : r.headers) m.set(name, value);
    }

    void writeStream(HttpResponse r) {
        auto st = std::make_shared<Streaming>();
        fillHead(st->res, r);
        st->res.content_length(r.streamSize);
        st->res.keep_alive(keepAlive_);
        st->res.body().data = nullptr;
        st->res.body().more = true;
        st->source = std::move(r.stream);
        st->serializer.emplace(st->res);
        lowest().expires_after(kWriteStallTimeout);
        http::async_write_header(self().stream(), *st->serializer,
                                 [s = self().shared_from_this(), st](beast::error_code ec, std::size_t) {
                                     if (ec) return s->onWritten(ec, 0);
                                     s->nextChunk(st);
                                 });
    }

    // The next chunk is read on the worker pool (it comes from disk), then written here.
    void nextChunk(const std::shared_ptr<Streaming>& st) {
        lowest().expires_never();
        net::post(server_.workers, [s = self().shared_from_this(), st] {
            std::optional<std::string> failure;
            bool more = false;
            try {
                more = st->source->next(st->chunk);
            } catch (const std::exception& e) {
                failure = e.what();
            }
            net::post(s->self().stream().get_executor(), [s, st, more, failure = std::move(failure)] {
                s->writeChunk(st, more, failure);
            });
        });
    }

    void writeChunk(const std::shared_ptr<Streaming>& st, bool more, const std::optional<std::string>& failure) {
        if (failure) {
            logLine("error: " + server_.logPath(path_) + ": " + *failure + "\n");
            keepAlive_ = false;
            return onWritten(beast::error_code(net::error::broken_pipe), st->sent);
        }
        auto& body = st->res.body();
        if (more) {
            body.data = st->chunk.data();
            body.size = st->chunk.size();
            body.more = true;
            st->sent += st->chunk.size();
        } else {
            body.data = nullptr;
            body.size = 0;
            body.more = false;
        }
        lowest().expires_after(kWriteStallTimeout);
        http::async_write(self().stream(), *st->serializer,
                          [s = self().shared_from_this(), st](beast::error_code ec, std::size_t) {
                              if (ec == http::error::need_buffer) ec = {};
                              if (ec) return s->onWritten(ec, st->sent);
                              if (st->serializer->is_done()) return s->onWritten(ec, st->sent);
                              s->nextChunk(st);
                          });
    }

    // The header and the body through Beast, then the files' bytes by the connection's
    // own way of sending them (Derived::sendSlices, which ends in finishSlices).
    void writeWithFiles(HttpResponse r) {
        auto st = std::make_shared<SliceSending>();
        fillHead(st->head, r);
        std::uint64_t length = r.body.size();
        for (const FileSlice& f : r.files) length += f.size;
        st->head.content_length(length);
        st->head.keep_alive(keepAlive_);
        st->body = std::move(r.body);
        st->files = std::move(r.files);
        lowest().expires_after(kWriteStallTimeout);
        http::async_write(self().stream(), st->head, [s = self().shared_from_this(), st](beast::error_code ec, std::size_t) {
            if (ec) return s->onWritten(ec, 0);
            s->lowest().expires_after(kWriteStallTimeout);
            net::async_write(s->self().stream(), net::buffer(st->body),
                             [s, st](beast::error_code ec, std::size_t n) {
                                 st->sent = n;
                                 if (ec) return s->onWritten(ec, n);
                                 s->lowest().expires_never();
                                 s->self().sendSlices(st);
                             });
        });
    }

protected:
    struct SliceSending {
        http::response<http::empty_body> head;
        std::string body;
        std::vector<FileSlice> files;
        std::size_t index = 0;    // the file being sent
        std::uint64_t offset = 0;  // bytes of it already sent
        std::uint64_t sent = 0;    // body and file bytes sent
    };

    // Sends the files by reading them into a buffer of the connection's (the way for
    // TLS, where the bytes must pass through the cipher anyway). The reads run on the
    // worker pool; only the writes run here.
    void copySlices(const std::shared_ptr<SliceSending>& st) {
        while (st->index < st->files.size() && st->offset == st->files[st->index].size) {
            ++st->index;
            st->offset = 0;
        }
        if (st->index == st->files.size()) return finishSlices(st, {});
        if (const FileSlice& f = st->files[st->index]; f.bytes) {  // already read: no disk work
            lowest().expires_after(kWriteStallTimeout);
            const auto n = static_cast<std::size_t>(f.size - st->offset);
            net::async_write(self().stream(), net::buffer(f.bytes.get() + st->offset, n),
                             [s = self().shared_from_this(), st](beast::error_code ec, std::size_t written) {
                                 st->sent += written;
                                 st->offset += written;
                                 if (ec) return s->finishSlices(st, ec);
                                 s->copySlices(st);
                             });
            return;
        }
        if (sliceBuffer_.empty()) sliceBuffer_.resize(kSliceChunk);
        net::post(server_.workers, [s = self().shared_from_this(), st] {
            const FileSlice& f = st->files[st->index];
            const std::size_t want =
                static_cast<std::size_t>(std::min<std::uint64_t>(f.size - st->offset, kSliceChunk));
            ssize_t n;
            do n = ::pread(f.fd.get(), s->sliceBuffer_.data(), want, static_cast<off_t>(st->offset));
            while (n < 0 && errno == EINTR);
            const int readErrno = n < 0 ? errno : EIO;
            net::post(s->self().stream().get_executor(), [s, st, n, readErrno] { s->writeSlice(st, n, readErrno); });
        });
    }

    void writeSlice(const std::shared_ptr<SliceSending>& st, ssize_t n, int readErrno) {
        if (n <= 0) return finishSlices(st, beast::error_code(readErrno, beast::system_category()));
        st->offset += static_cast<std::uint64_t>(n);
        lowest().expires_after(kWriteStallTimeout);
        net::async_write(self().stream(), net::buffer(sliceBuffer_.data(), static_cast<std::size_t>(n)),
                         [s = self().shared_from_this(), st](beast::error_code ec, std::size_t written) {
                             st->sent += written;
                             if (ec) return s->finishSlices(st, ec);
                             s->copySlices(st);
                         });
    }

    void finishSlices(const std::shared_ptr<SliceSending>& st, beast::error_code ec) {
        if (ec && ec != net::error::operation_aborted && st->index < st->files.size())
            logLine("error: " + server_.logPath(path_) + ": sending a file: " + ec.message() + "\n");
        if (ec) keepAlive_ = false;  // the answer is cut short: the client must not wait for the rest
        onWritten(ec, static_cast<std::size_t>(st->sent));
    }

    static constexpr std::size_t kSliceChunk = 256 * 1024;
    std::vector<char> sliceBuffer_;

private:
    void onWritten(beast::error_code ec, std::size_t bytes) {
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start_);
        logLine(method_ + " " + server_.logPath(path_) + " " + std::to_string(status_) + " " + std::to_string(bytes) +
                " " + std::to_string(ms.count()) + "ms\n");
        if (ec || !keepAlive_) return self().close();
        readRequest();
    }

protected:
    HttpServer::Impl& server_;

private:
    ConnectionSlot slot_;
    std::string peerAddress_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    std::shared_ptr<HttpRequest> head_;  // the request being read, once its header was accepted
    std::string spareBody_;  // a finished request's body, kept for its memory
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point bodyStart_;
    std::uint64_t bodyBytes_ = 0;
    std::chrono::steady_clock::time_point readArmedAt_;  // when the read stall timer was last armed
    std::uint64_t requests_ = 0;
    std::uint64_t idleId_ = 0;  // while waiting for a request: its entry among the idle ones
    std::string method_;
    std::string path_;
    Lane lane_ = Lane::Normal;
    int status_ = 0;
    bool keepAlive_ = true;
};

class PlainSession : public Session<PlainSession>, public std::enable_shared_from_this<PlainSession> {
public:
    static constexpr bool kTls = false;
    PlainSession(HttpServer::Impl& server, tcp::socket socket, std::string peerAddress)
        : Session(server, std::move(peerAddress)), stream_(std::move(socket)), waitTimer_(stream_.get_executor()) {}
    void start() {
        net::dispatch(stream_.get_executor(), [s = shared_from_this()] { s->readRequest(); });
    }
    beast::tcp_stream& stream() { return stream_; }
    /// Lingering close: after our FIN, reads and drops what the client still sends (an
    /// unread body would make the kernel reset the connection and the client could lose
    /// the answer), for at most a few seconds.
    void close() {
        beast::error_code ec;
        stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
        if (ec) {
            stream_.socket().close(ec);
            return;
        }
        stream_.expires_after(kLingerTimeout);
        drain();
    }

    // Sends the files with sendfile(2): from the page cache to the socket without a copy
    // through the service (parts already read into memory are sent from there). Waits
    // for room in the socket without holding a thread, for at most the write stall
    // time-out each time.
    void sendSlices(const std::shared_ptr<SliceSending>& st) {
        auto& socket = stream_.socket();
        beast::error_code ec;
        socket.native_non_blocking(true, ec);
        if (ec) return finishSlices(st, ec);
        while (st->index < st->files.size()) {
            const FileSlice& f = st->files[st->index];
            if (st->offset == f.size) {
                ++st->index;
                st->offset = 0;
                continue;
            }
            const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(f.size - st->offset, 1u << 30));
            off_t at = static_cast<off_t>(st->offset);
            const ssize_t n = f.bytes ? ::send(socket.native_handle(), f.bytes.get() + st->offset, want, MSG_NOSIGNAL)
                                      : ::sendfile(socket.native_handle(), f.fd.get(), &at, want);
            if (n > 0) {
                st->offset += static_cast<std::uint64_t>(n);
                st->sent += static_cast<std::uint64_t>(n);
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                waitTimer_.expires_after(kWriteStallTimeout);
                waitTimer_.async_wait([s = shared_from_this()](beast::error_code ec) {
                    if (ec) return;  // the socket became writable first
                    beast::error_code ignored;
                    s->stream_.socket().cancel(ignored);
                });
                socket.async_wait(tcp::socket::wait_write, [s = shared_from_this(), st](beast::error_code ec) {
                    s->waitTimer_.cancel();
                    if (ec == net::error::operation_aborted) ec = beast::error::timeout;
                    if (ec) return s->finishSlices(st, ec);
                    s->sendSlices(st);
                });
                return;
            } else {  // the file ended early, or the socket failed
                return finishSlices(st, beast::error_code(n < 0 ? errno : EIO, beast::system_category()));
            }
        }
        finishSlices(st, {});
    }

private:
    void drain() {
        stream_.async_read_some(net::buffer(scratch_), [s = shared_from_this()](beast::error_code ec, std::size_t) {
            if (ec) {
                beast::error_code ignored;
                s->stream_.socket().close(ignored);
                return;
            }
            s->drain();
        });
    }

    friend class Session<PlainSession>;
    beast::tcp_stream stream_;
    net::steady_timer waitTimer_;
    std::array<char, 16384> scratch_{};
};

class TlsSession : public Session<TlsSession>, public std::enable_shared_from_this<TlsSession> {
public:
    static constexpr bool kTls = true;
    TlsSession(HttpServer::Impl& server, tcp::socket socket, ssl::context& ctx, std::string peerAddress)
        : Session(server, std::move(peerAddress)), stream_(std::move(socket), ctx) {}
    void start() {
        net::dispatch(stream_.get_executor(), [s = shared_from_this()] {
            beast::get_lowest_layer(s->stream_).expires_after(kHandshakeTimeout);
            s->stream_.async_handshake(ssl::stream_base::server, [s](beast::error_code ec) {
                if (ec) return s->closeSocket();
                s->readRequest();
            });
        });
    }
    beast::ssl_stream<beast::tcp_stream>& stream() { return stream_; }
    void sendSlices(const std::shared_ptr<SliceSending>& st) { copySlices(st); }
    void close() {
        beast::get_lowest_layer(stream_).expires_after(kLingerTimeout);
        stream_.async_shutdown([s = shared_from_this()](beast::error_code) { s->closeSocket(); });
    }

private:
    void closeSocket() {
        beast::error_code ec;
        beast::get_lowest_layer(stream_).socket().close(ec);
    }
    friend class Session<TlsSession>;
    beast::ssl_stream<beast::tcp_stream> stream_;
};

}  // namespace

void HttpServer::Impl::accept() {
    acceptor.async_accept(net::make_strand(ioc),
                          [this](beast::error_code ec, tcp::socket socket) { onAccepted(ec, std::move(socket)); });
}

void HttpServer::Impl::onAccepted(beast::error_code ec, tcp::socket socket) {
    if (ec == net::error::operation_aborted || !acceptor.is_open()) return;
    if (ec) {
        // Out of descriptors or memory: accepting again at once would fail again and
        // spin. Wait, longer each time, for connections to close.
        const bool exhausted = ec == net::error::no_descriptors || ec == net::error::no_buffer_space ||
                               ec == net::error::no_memory || ec.value() == ENFILE;
        if (exhausted) {
            acceptBackoff = std::min<std::chrono::milliseconds>(
                acceptBackoff.count() ? acceptBackoff * 2 : std::chrono::milliseconds(kFirstAcceptBackoff),
                std::chrono::milliseconds(kMaxAcceptBackoff));
            logLine("error: accepting connections: " + ec.message() + "; trying again in " +
                    std::to_string(acceptBackoff.count()) + "ms\n");
            acceptTimer.expires_after(acceptBackoff);
            acceptTimer.async_wait([this](beast::error_code ec) {
                if (!ec) accept();
            });
            return;
        }
        return accept();
    }
    acceptBackoff = std::chrono::milliseconds(0);
    beast::error_code peerEc;
    auto peer = socket.remote_endpoint(peerEc);
    std::string peerAddress = peerEc ? std::string("-") : peerAddressOf(peer.address());
    socket.set_option(tcp::no_delay(true), peerEc);
    bool pause = false;
    std::pair<std::shared_ptr<IdleConnection>, std::uint64_t> victim;
    {
        std::lock_guard lock(capMutex);
        ++connections;
        if (connections > maxConnections) {
            // Past the cap the connection that has waited longest for a request makes
            // room (one that never sent a request first). With none, every connection
            // is in a request: this one waits for a place, and later ones in the
            // kernel's backlog.
            victim = takeOldestIdle();
            if (!victim.first) {
                parked.emplace(Parked{std::move(socket), std::move(peerAddress)});
                acceptPaused = true;
                return;
            }
        }
        // Closings under way count until they are done; too many pause accepting.
        pause = connections >= maxConnections + kEvictionSlack;
        if (pause) acceptPaused = true;
    }
    startSession(std::move(socket), std::move(peerAddress));
    if (victim.first) victim.first->evict(victim.second);
    if (!pause) accept();
}

void HttpServer::Impl::startSession(tcp::socket socket, std::string peerAddress) {
    if (sslContext)
        std::make_shared<TlsSession>(*this, std::move(socket), *sslContext, std::move(peerAddress))->start();
    else
        std::make_shared<PlainSession>(*this, std::move(socket), std::move(peerAddress))->start();
}

std::uint64_t HttpServer::Impl::markIdle(std::weak_ptr<IdleConnection> connection, bool fresh) {
    std::lock_guard lock(capMutex);
    // A connection waits for a place: this one, idle now, gives it up (its caller
    // closes it when it sees 0).
    if (parked && !stopping) return 0;
    const std::uint64_t id = nextIdleId++;
    (fresh ? freshIdle : keptIdle).emplace(id, std::move(connection));
    return id;
}

void HttpServer::Impl::markBusy(std::uint64_t idleId) {
    if (!idleId) return;
    std::lock_guard lock(capMutex);
    if (!freshIdle.erase(idleId)) keptIdle.erase(idleId);
}

std::pair<std::shared_ptr<IdleConnection>, std::uint64_t> HttpServer::Impl::takeOldestIdle() {
    for (auto* idle : {&freshIdle, &keptIdle}) {
        while (!idle->empty()) {
            auto oldest = idle->begin();
            const std::uint64_t id = oldest->first;
            std::shared_ptr<IdleConnection> connection = oldest->second.lock();
            idle->erase(oldest);
            if (connection) return {std::move(connection), id};
        }
    }
    return {};
}

void HttpServer::Impl::releaseConnection() {
    bool resume = false;
    std::optional<Parked> waiting;
    {
        std::lock_guard lock(capMutex);
        --connections;
        if (stopping) return;
        if (parked) {
            waiting = std::move(parked);  // takes the place that freed up (still counted)
            parked.reset();
        }
        if (acceptPaused && connections <= maxConnections) {
            acceptPaused = false;
            resume = true;
        }
    }
    if (waiting) {
        // On the I/O context: this may run while a session is being destroyed.
        net::post(ioc, [this, w = std::make_shared<Parked>(std::move(*waiting))]() mutable {
            startSession(std::move(w->socket), std::move(w->peerAddress));
        });
    }
    if (resume) net::post(ioc, [this] { accept(); });
}

HttpServer::HttpServer(Options options, Handler handler, Limits limits, CheckCredential checkCredential,
                       KnownCredential knownCredential, LogPath logPath)
    : impl_(std::make_unique<Impl>(std::move(options), std::move(handler), std::move(limits),
                                   std::move(checkCredential), std::move(knownCredential), std::move(logPath))) {}

HttpServer::~HttpServer() {
    stop();
    impl_->workers.join();
    impl_->longWorkers.join();
    impl_->loginWorkers.join();
    std::lock_guard lock(impl_->capMutex);
    impl_->parked.reset();  // its socket must go before the I/O context
}

std::size_t HttpServer::maxConnections() const { return impl_->maxConnections; }

std::string HttpServer::listen() {
    Impl& s = *impl_;
    if (s.options.tls) {
        s.sslContext.emplace(ssl::context::tls_server);
        s.sslContext->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                                  ssl::context::no_sslv3 | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
        beast::error_code ec;
        s.sslContext->use_certificate_chain_file(s.options.certFile, ec);
        if (ec) throw std::runtime_error("cannot load TLS certificate " + s.options.certFile + ": " + ec.message());
        s.sslContext->use_private_key_file(s.options.keyFile, ssl::context::pem, ec);
        if (ec) throw std::runtime_error("cannot load TLS key " + s.options.keyFile + ": " + ec.message());
    }
    const rlim_t descriptors = raiseDescriptorLimit();
    if (s.options.maxConnections) {
        s.maxConnections = s.options.maxConnections;
    } else {
        // A connection can hold a socket and, while it sends parts, their files.
        const rlim_t room = descriptors > kReservedDescriptors * 2 ? (descriptors - kReservedDescriptors) / 2 : 16;
        s.maxConnections = static_cast<std::size_t>(std::min<rlim_t>(room, kDefaultMaxConnections));
    }
    beast::error_code ec;
    auto address = net::ip::make_address(s.options.host, ec);
    if (ec) throw std::runtime_error("invalid listen address " + s.options.host);
    tcp::endpoint endpoint(address, s.options.port);
    const std::string where = s.options.host + ":" + std::to_string(s.options.port);
    s.acceptor.open(endpoint.protocol(), ec);
    if (!ec) s.acceptor.set_option(net::socket_base::reuse_address(true), ec);
    if (!ec) s.acceptor.bind(endpoint, ec);
    if (!ec) s.acceptor.listen(net::socket_base::max_listen_connections, ec);
    if (ec) throw std::runtime_error("cannot listen on " + where + ": " + ec.message());
    const auto port = s.acceptor.local_endpoint().port();
    const std::string host = address.is_v6() ? "[" + s.options.host + "]" : s.options.host;
    return std::string(s.options.tls ? "https://" : "http://") + host + ":" + std::to_string(port) + "/";
}

void HttpServer::run() {
    Impl& s = *impl_;
    s.signals.async_wait([this](beast::error_code ec, int) {
        if (!ec) stop();
    });
    s.accept();
    std::vector<std::thread> threads;
    for (unsigned i = 1; i < std::max(1u, s.options.ioThreads); ++i) threads.emplace_back([&s] { s.ioc.run(); });
    s.ioc.run();
    for (auto& t : threads) t.join();
}

void HttpServer::stop() {
    Impl& s = *impl_;
    s.stopping = true;
    if (s.options.onStop) s.options.onStop();
    net::post(s.ioc, [&s] {
        beast::error_code ec;
        s.acceptor.close(ec);
        s.acceptTimer.cancel();
        s.signals.cancel(ec);
        s.ioc.stop();
    });
}

}  // namespace zarnu::cloud
