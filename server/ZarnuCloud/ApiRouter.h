#pragma once
// Turns HTTP requests into CloudService calls and their results into JSON or binary
// answers (see docs/cloud-api.md). Every endpoint is one row of a table: method, path,
// who may call it, its largest body, the pool that runs it and its handler. Never
// throws: every failure becomes an error answer. Thread-safe; references must outlive it.

#include "CloudService.h"
#include "HttpTypes.h"
#include "LoginThrottle.h"
#include "OperatorCredential.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <string>
#include <vector>

namespace zarnu::cloud {

class ApiRouter {
public:
    static constexpr std::size_t kMaxJsonBody = 1024 * 1024;
    static constexpr std::size_t kMaxCreateBody = 16 * 1024 * 1024;

    /// Who may call an endpoint. Nothing depends on the client's address.
    enum class AuthRule {
        None,               ///< anyone
        Account,            ///< a live account token
        BuildRole,          ///< a live token of an account with the build role
        OperatorOrAccount,  ///< the operator token, or a live account token
    };
    /// The shape of an endpoint's error answers.
    enum class ErrorStyle {
        Api,    ///< {"error": {"code": ..., "message": ...}}
        Slots,  ///< {"result": "error", "error": "<message>"} (the build-slot service)
    };

    /// defaultAuthority ("127.0.0.1:8443") is used for links when a request has no
    /// usable Host header.
    ApiRouter(CloudService& service, const OperatorCredential& operatorCredential, std::string defaultAuthority);

    HttpResponse handle(const HttpRequest& request);

    /// What the server needs to know once the request line is known (no I/O).
    RouteLimits limits(std::string_view method, std::string_view path) const;
    /// Checks the request's credential against its endpoint's rule (the body is not
    /// needed); the refusal to answer when it fails. May block on the database.
    std::optional<HttpResponse> refuseCredential(const HttpRequest& request);
    /// Whether refuseCredential accepted this credential for this endpoint's rule in the
    /// last kRecentCredentialSeconds (memory only, never blocks). Only a hint for reading
    /// a body at once: the request is still authorised in full when it is handled.
    bool credentialRecentlyAccepted(const HttpRequest& request);
    static constexpr std::int64_t kRecentCredentialSeconds = 60;
    /// The path as it may be logged (link tokens hidden).
    static std::string loggablePath(std::string_view path);

private:
    /// The caller as its credential showed it.
    struct Call {
        const HttpRequest& request;
        AccountId account = 0;    ///< 0 for the operator and for AuthRule::None
        bool isOperator = false;
    };
    using Handler = HttpResponse (ApiRouter::*)(const Call&);
    struct Route {
        std::string_view method;
        std::string_view path;  ///< the whole path, or its beginning when `prefix`
        bool prefix;
        AuthRule auth;
        std::size_t bodyLimit;
        Lane lane;
        ErrorStyle errors;
        Handler handler;
    };
    static const std::vector<Route>& table();
    /// The route for the path and method; nullptr when none. `pathKnown` tells whether
    /// some route has the path (then the method is wrong).
    static const Route* find(std::string_view method, std::string_view path, bool& pathKnown);
    /// The rule that applies to a request: its route's, else the rule of its area.
    static AuthRule ruleFor(std::string_view method, std::string_view path, ErrorStyle& errors);

    Call authorize(const HttpRequest& request, AuthRule rule);
    HttpResponse route(const HttpRequest& request, ErrorStyle& errors);

    HttpResponse info(const Call&);
    HttpResponse stats(const Call&);
    HttpResponse login(const Call&);
    HttpResponse logout(const Call&);
    HttpResponse uploadParts(const Call&);
    HttpResponse list(const Call&);
    HttpResponse missingParts(const Call&);
    HttpResponse createFile(const Call&);
    HttpResponse downloadParts(const Call&);
    HttpResponse makeFolder(const Call&);
    HttpResponse remove(const Call&);
    HttpResponse undelete(const Call&);
    HttpResponse changes(const Call&);
    HttpResponse createLink(const Call&);
    HttpResponse publicLink(const Call&);
    HttpResponse getSlots(const Call&);
    HttpResponse postSlots(const Call&);

    CloudService& service_;
    const OperatorCredential& operator_;
    std::string defaultAuthority_;
    LoginThrottle throttle_;
    // Credentials refuseCredential accepted: SHA-256 of the token plus the rule -> when.
    std::mutex recentMutex_;
    std::unordered_map<std::string, std::chrono::steady_clock::time_point> recent_;
};

}  // namespace zarnu::cloud
