#pragma once
// Turns HTTP requests into CloudService calls and their results into JSON or binary
// answers (see docs/cloud-api.md). Never throws: every failure becomes an error answer.
// Thread-safe; references must outlive it.

#include "CloudService.h"
#include "HttpTypes.h"

#include <string>

namespace zarnu::cloud {

class ApiRouter {
public:
    static constexpr std::size_t kMaxJsonBody = 1024 * 1024;
    static constexpr std::size_t kMaxCreateBody = 16 * 1024 * 1024;

    /// defaultAuthority ("127.0.0.1:8443") is used for links when a request has no
    /// usable Host header.
    ApiRouter(CloudService& service, std::string defaultAuthority);

    HttpResponse handle(const HttpRequest& request);

    /// Largest body accepted for this request line.
    static std::size_t bodyLimit(std::string_view method, std::string_view path);
    /// Whether a request to this path may be held for long (the change feed's long poll).
    static bool isLongRequest(std::string_view path) { return path == "/api/v1/changes"; }
    /// The path as it may be logged (link tokens hidden).
    static std::string loggablePath(std::string_view path);

private:
    HttpResponse route(const HttpRequest& request);

    CloudService& service_;
    std::string defaultAuthority_;
};

}  // namespace zarnu::cloud
