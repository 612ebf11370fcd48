#pragma once
// The HTTP request and response as the API layer sees them, free of any networking
// library so that request handling compiles (and is tested) without Boost.Beast.

#include "FileSlice.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zarnu::cloud {

struct HttpRequest {
    std::string method;         ///< "GET", "POST", ...
    std::string path;           ///< target without the query string
    std::string authorization;  ///< Authorization header, may be empty
    std::string host;           ///< Host header, may be empty
    std::string body;
    std::string peerAddress;    ///< the client's IP address (for throttling; never trusted)
    bool tls = false;           ///< the connection is HTTPS
};

/// Which of the server's pools runs a request's handler.
enum class Lane {
    Normal,  ///< the shared workers
    Long,    ///< requests that may be held for long (long polls)
    Login,   ///< password logins: a small pool of their own, so hashing never holds up the rest
};

/// What the server must know of a request once its header has arrived, before it reads
/// the body.
struct RouteLimits {
    std::size_t bodyLimit = 0;  ///< larger bodies are refused unread
    Lane lane = Lane::Normal;
    bool needsToken = false;    ///< the credential is checked before a large body is read
};

/// Produces a response body piece by piece (large downloads). Called from one thread at
/// a time; next() returns false when the body is complete and throws on failure (the
/// connection is then closed).
class BodySource {
public:
    virtual ~BodySource() = default;
    virtual bool next(std::string& chunk) = 0;
};

struct HttpResponse {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    /// Sent after `body`, in order, straight from the files (no copy through the service
    /// where the connection allows it). Not together with `stream`.
    std::vector<FileSlice> files;
    /// When set, the body comes from here instead of `body` and is `streamSize` bytes long.
    std::unique_ptr<BodySource> stream;
    std::uint64_t streamSize = 0;
};

}  // namespace zarnu::cloud
