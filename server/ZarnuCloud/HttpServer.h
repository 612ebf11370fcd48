#pragma once
// The HTTP(S) front end: Boost.Beast over Asio, asynchronous, keep-alive, TLS through
// Asio's SSL stream. Network I/O runs on a few I/O threads; each request is handed to a
// worker pool (handlers may block on disk, the database or password hashing) and the
// answer is written back on the connection's strand. Writes one log line per request
// to standard error. Beast and Asio stay inside HttpServer.cpp.
//
// Limits that keep one client from starving the others:
//  * at most Options::maxConnections connections: past it the connection that has
//    waited longest for a request (one that never sent a request first) is closed to
//    make room; when all are in a request, new ones wait until one idles or closes;
//    when accepting fails for want of descriptors or memory the server backs off
//    (10 ms, doubling to 1 s) instead of spinning;
//  * a new connection's first request header must arrive within 10 s (later ones within
//    the 60 s idle time), the TLS handshake within 10 s;
//  * the credential of a request with a body over 64 KiB (or of unknown length) is
//    checked as soon as its header arrives, before the body is read (unless it passed
//    that check lately);
//  * a body must keep coming: no read may wait more than 20 s (else the connection
//    closes), and after its first 10 s it must average at least 16 KiB/s (else 408,
//    code 222, and the connection closes);
//  * every write of an answer (a header, a chunk, a wait for room to send a file) must
//    progress within 30 s, however long the whole answer takes;
//  * files are read on the worker pool, never on the I/O threads (sendfile(2) excepted,
//    which the kernel serves from the page cache).

#include "HttpTypes.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace zarnu::cloud {

class HttpServer {
public:
    struct Options {
        std::string host = "127.0.0.1";  ///< IP address
        unsigned short port = 0;
        bool tls = false;
        std::string certFile;  ///< PEM chain, when tls
        std::string keyFile;   ///< PEM key, when tls
        unsigned ioThreads = 2;
        unsigned workerThreads = 4;
        /// Requests in Lane::Long (long polls) run on a pool of their own so that they
        /// never hold up other requests; Lane::Login on another, small one.
        unsigned longRequestThreads = 64;
        unsigned loginThreads = 2;
        /// 0: derived from the descriptor limit (which listen() raises to its maximum).
        std::size_t maxConnections = 0;
        /// Called when serving stops (a signal or stop()), before the pools are joined:
        /// it must end waiting requests.
        std::function<void()> onStop;
    };
    /// Must be thread-safe and must not throw.
    using Handler = std::function<HttpResponse(const HttpRequest&)>;
    /// What a request line needs; must be cheap (runs on an I/O thread) and not throw.
    using Limits = std::function<RouteLimits(std::string_view method, std::string_view path)>;
    /// Checks a request's credential from its header alone; the answer to send when it is
    /// refused. Runs on the worker pool; must not throw.
    using CheckCredential = std::function<std::optional<HttpResponse>(const HttpRequest& head)>;
    /// Whether a request's credential passed CheckCredential lately, so that its body may
    /// be read at once (the handler still checks it). Runs on an I/O thread: memory
    /// only, must not block or throw.
    using KnownCredential = std::function<bool(const HttpRequest& head)>;
    using LogPath = std::function<std::string(std::string_view path)>;

    HttpServer(Options options, Handler handler, Limits limits, CheckCredential checkCredential,
               KnownCredential knownCredential, LogPath logPath);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// The connection cap in force (after listen()).
    std::size_t maxConnections() const;
    /// Loads TLS material, binds and listens. Returns the URL clients use, with the real
    /// port. Throws std::runtime_error naming what failed.
    std::string listen();
    /// Serves until SIGINT/SIGTERM arrives or stop() is called; blocks.
    void run();
    /// Stops serving; safe from any thread.
    void stop();

    struct Impl;  ///< opaque: defined in HttpServer.cpp

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace zarnu::cloud
