#pragma once
// The HTTP(S) front end: Boost.Beast over Asio, asynchronous, keep-alive, TLS through
// Asio's SSL stream. Network I/O runs on a few I/O threads; each request is handed to a
// worker pool (handlers may block on disk, the database or password hashing) and the
// answer is written back on the connection's strand. Writes one log line per request
// to standard error. Beast and Asio stay inside HttpServer.cpp.

#include "HttpTypes.h"

#include <functional>
#include <memory>
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
        /// Requests whose path this accepts may wait long (long polls): they run on a
        /// pool of their own so that they never hold up other requests.
        std::function<bool(std::string_view path)> isLongRequest;
        unsigned longRequestThreads = 64;
        /// Called when serving stops (a signal or stop()), before the pools are joined:
        /// it must end waiting requests.
        std::function<void()> onStop;
    };
    /// Must be thread-safe and must not throw.
    using Handler = std::function<HttpResponse(const HttpRequest&)>;
    using BodyLimit = std::function<std::size_t(std::string_view method, std::string_view path)>;
    using LogPath = std::function<std::string(std::string_view path)>;

    HttpServer(Options options, Handler handler, BodyLimit bodyLimit, LogPath logPath);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

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
