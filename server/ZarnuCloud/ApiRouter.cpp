#include "ApiRouter.h"

#include "ApiError.h"
#include "BuildSlots.h"
#include "CloudPath.h"
#include "Fingerprint.h"
#include "PartBatch.h"
#include "Secrets.h"

#include <boost/json.hpp>

#include <cctype>
#include <charconv>
#include <iostream>
#include <string_view>

#ifndef ZARNU_VERSION
#define ZARNU_VERSION "0"
#endif

namespace zarnu::cloud {

namespace json = boost::json;

namespace {

constexpr std::string_view kApi = "/api/v1/";
constexpr std::string_view kPublic = "/public/";

HttpResponse jsonAnswer(const json::value& v, int status = 200) {
    HttpResponse r;
    r.status = status;
    r.body = json::serialize(v);
    return r;
}

json::object entryJson(const Entry& e, const std::vector<PartLocation>* parts);

HttpResponse errorAnswer(const ApiError& e) {
    json::object err{{"code", static_cast<int>(e.code())}, {"message", e.what()}};
    if (e.code() == ErrorCode::PartsMissing) {
        json::array missing;
        for (const auto& m : e.missing) missing.emplace_back(m);
        err["missing"] = std::move(missing);
    }
    if (e.code() == ErrorCode::Conflict) {
        err["current"] = e.current ? json::value(entryJson(*e.current, nullptr)) : json::value(nullptr);
    }
    return jsonAnswer(json::object{{"error", std::move(err)}}, e.httpStatus());
}

// Typed access to the fields of a JSON request body.
class Fields {
public:
    explicit Fields(const std::string& body) {
        json::error_code ec;
        value_ = json::parse(body.empty() ? std::string_view("{}") : std::string_view(body), ec);
        if (ec) throw ApiError(ErrorCode::BadInput, "The body is not valid JSON: " + ec.message());
        if (!value_.is_object()) throw ApiError(ErrorCode::BadInput, "The body must be a JSON object");
    }

    const json::value* find(std::string_view name) const { return value_.as_object().if_contains(name); }

    std::string string(std::string_view name, bool required = true, std::string fallback = {}) const {
        const json::value* v = find(name);
        if (!v || v->is_null()) {
            if (required) throw missing(name, "string");
            return fallback;
        }
        if (!v->is_string()) throw wrong(name, "a string");
        return std::string(v->as_string());
    }
    bool boolean(std::string_view name, bool fallback = false) const {
        const json::value* v = find(name);
        if (!v || v->is_null()) return fallback;
        if (!v->is_bool()) throw wrong(name, "true or false");
        return v->as_bool();
    }
    std::uint64_t unsignedInt(std::string_view name, std::uint64_t fallback, bool required = false) const {
        const json::value* v = find(name);
        if (!v || v->is_null()) {
            if (required) throw missing(name, "integer");
            return fallback;
        }
        return toUnsigned(*v, name);
    }
    std::vector<std::string> strings(std::string_view name) const {
        const json::value* v = find(name);
        if (!v || !v->is_array()) throw wrong(name, "an array of strings");
        std::vector<std::string> out;
        for (const auto& item : v->as_array()) {
            if (!item.is_string()) throw wrong(name, "an array of strings");
            out.emplace_back(item.as_string());
        }
        return out;
    }
    std::vector<PartRef> parts(std::string_view name) const {
        const json::value* v = find(name);
        if (!v || !v->is_array()) throw wrong(name, "an array of {fingerprint, size}");
        std::vector<PartRef> out;
        out.reserve(v->as_array().size());
        for (const auto& item : v->as_array()) {
            const json::object* o = item.if_object();
            const json::value* fp = o ? o->if_contains("fingerprint") : nullptr;
            const json::value* size = o ? o->if_contains("size") : nullptr;
            if (!fp || !fp->is_string() || !size) throw wrong(name, "an array of {fingerprint, size}");
            out.push_back({std::string(fp->as_string()), toUnsigned(*size, "size")});
        }
        return out;
    }

    static std::uint64_t toUnsigned(const json::value& v, std::string_view name) {
        if (v.is_uint64()) return v.as_uint64();
        if (v.is_int64() && v.as_int64() >= 0) return static_cast<std::uint64_t>(v.as_int64());
        throw wrong(name, "a non-negative integer");
    }

private:
    static ApiError missing(std::string_view name, const char* type) {
        return ApiError(ErrorCode::BadInput, "The field \"" + std::string(name) + "\" (" + type + ") is missing");
    }
    static ApiError wrong(std::string_view name, const char* what) {
        return ApiError(ErrorCode::BadInput, "The field \"" + std::string(name) + "\" must be " + what);
    }
    json::value value_;
};

json::object entryJson(const Entry& e, const std::vector<PartLocation>* parts) {
    json::object o{
        {"id", e.id},
        {"path", CloudPath::pathOfKey(e.key)},
        {"name", e.name},
        {"is_folder", e.folder},
        {"attributes", e.folder ? 16 : 0},
        {"size", e.size},
        {"modified", e.modified},
        {"deleted", e.deleted},
        {"contained", e.contained},
        {"part_count", e.partCount},
        {"change_seq", e.changeSeq},
    };
    if (parts) {
        json::array list;
        for (const auto& p : *parts)
            list.push_back(json::object{{"fingerprint", p.fingerprint}, {"size", p.size}, {"offset", p.offset}});
        o["parts"] = std::move(list);
    }
    return o;
}

// A path of the change feed: the entry as it is now (files with all their parts), or, for
// a path that left the tree, its path with id 0 and "deleted" set.
json::object feedJson(CloudService& service, const TreeChange& change) {
    if (change.gone) {
        Entry e;
        e.key = change.entry.key;
        e.name = CloudPath::pathOfKey(e.key).substr(CloudPath::pathOfKey(e.key).rfind('/') + 1);
        e.deleted = 1;
        e.changeSeq = change.seq;
        return entryJson(e, nullptr);
    }
    if (change.entry.folder) return entryJson(change.entry, nullptr);
    const std::vector<PartLocation> parts = service.meta().fileParts(change.entry.id, 0);
    return entryJson(change.entry, &parts);
}

IfVersion ifVersionOf(const Fields& f) {
    const json::value* v = f.find("if_version");
    if (!v || v->is_null()) return std::nullopt;
    return static_cast<EntryId>(Fields::toUnsigned(*v, "if_version"));
}

json::object changeJson(const ChangeResult& r, const char* countName) {
    return json::object{{countName, r.count}, {"entry", entryJson(r.entry, nullptr)}};
}

std::string bearerToken(const HttpRequest& req) {
    std::string_view h = req.authorization;
    constexpr std::string_view prefix = "Bearer ";
    if (h.size() <= prefix.size()) return {};
    for (std::size_t i = 0; i < prefix.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(h[i])) != std::tolower(static_cast<unsigned char>(prefix[i])))
            return {};
    h.remove_prefix(prefix.size());
    while (!h.empty() && h.front() == ' ') h.remove_prefix(1);
    while (!h.empty() && h.back() == ' ') h.remove_suffix(1);
    return std::string(h);
}

bool usableHost(std::string_view host) {
    if (host.empty() || host.size() > 255) return false;
    for (char c : host)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == ':' || c == '[' || c == ']'))
            return false;
    return true;
}

std::string percentEncode(std::string_view s) {
    static const char* digits = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        if (std::isalnum(c) || c == '.' || c == '-' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += digits[c >> 4];
            out += digits[c & 0x0F];
        }
    }
    return out;
}

[[noreturn]] void unknownEndpoint(const HttpRequest& req) {
    throw ApiError(ErrorCode::BadInput, "Unknown endpoint " + ApiRouter::loggablePath(req.path), 404);
}

HttpResponse slotsAnswer(std::string_view error, int status) {
    return jsonAnswer(json::object{{"result", error.empty() ? "ok" : "error"}, {"error", error}}, status);
}

HttpResponse refusal(const ApiError& e, ApiRouter::ErrorStyle style) {
    HttpResponse r = style == ApiRouter::ErrorStyle::Slots ? slotsAnswer(e.what(), e.httpStatus()) : errorAnswer(e);
    if (e.retryAfterSeconds > 0) r.headers.emplace_back("Retry-After", std::to_string(e.retryAfterSeconds));
    return r;
}

// Bytes of part data in an upload body: everything after the manifest line.
std::uint64_t uploadedPartBytes(std::string_view body) {
    const auto newline = body.find('\n');
    return newline == std::string_view::npos ? 0 : body.size() - newline - 1;
}

constexpr std::string_view kSlots = "/buildslots/slots";

}  // namespace

const std::vector<ApiRouter::Route>& ApiRouter::table() {
    using A = AuthRule;
    using E = ErrorStyle;
    constexpr std::size_t kNoBody = 0;
    constexpr std::size_t kLoginBody = 64 * 1024;
    // The one list of endpoints. A path below /api/v1/ that no row names is answered
    // 404 to an account and 177 to anyone else.
    static const std::vector<Route> routes = {
        {"GET", "/api/v1/info", false, A::None, kNoBody, Lane::Normal, E::Api, &ApiRouter::info},
        {"GET", "/api/v1/stats", false, A::OperatorOrAccount, kNoBody, Lane::Normal, E::Api, &ApiRouter::stats},
        {"POST", "/api/v1/login", false, A::None, kLoginBody, Lane::Login, E::Api, &ApiRouter::login},
        {"POST", "/api/v1/logout", false, A::Account, kMaxJsonBody, Lane::Normal, E::Api, &ApiRouter::logout},
        {"POST", "/api/v1/parts/upload", false, A::Account, PartBatch::kMaxUploadBody, Lane::Normal, E::Api,
         &ApiRouter::uploadParts},
        {"POST", "/api/v1/list", false, A::Account, kMaxJsonBody, Lane::Normal, E::Api, &ApiRouter::list},
        {"POST", "/api/v1/parts/missing", false, A::Account, kMaxJsonBody, Lane::Normal, E::Api,
         &ApiRouter::missingParts},
        {"POST", "/api/v1/files/create", false, A::Account, kMaxCreateBody, Lane::Normal, E::Api,
         &ApiRouter::createFile},
        {"POST", "/api/v1/parts/download", false, A::Account, kMaxJsonBody, Lane::Normal, E::Api,
         &ApiRouter::downloadParts},
        {"POST", "/api/v1/folders/create", false, A::Account, kMaxJsonBody, Lane::Normal, E::Api,
         &ApiRouter::makeFolder},
        {"POST", "/api/v1/delete", false, A::Account, kMaxJsonBody, Lane::Normal, E::Api, &ApiRouter::remove},
        {"POST", "/api/v1/undelete", false, A::Account, kMaxJsonBody, Lane::Normal, E::Api, &ApiRouter::undelete},
        {"POST", "/api/v1/changes", false, A::Account, kMaxJsonBody, Lane::Long, E::Api, &ApiRouter::changes},
        {"POST", "/api/v1/links/create", false, A::Account, kMaxJsonBody, Lane::Normal, E::Api,
         &ApiRouter::createLink},
        {"GET", kPublic, true, A::None, kNoBody, Lane::Normal, E::Api, &ApiRouter::publicLink},
        {"GET", kSlots, false, A::BuildRole, kNoBody, Lane::Normal, E::Slots, &ApiRouter::getSlots},
        {"POST", kSlots, false, A::BuildRole, kMaxJsonBody, Lane::Normal, E::Slots, &ApiRouter::postSlots},
    };
    return routes;
}

const ApiRouter::Route* ApiRouter::find(std::string_view method, std::string_view path, bool& pathKnown) {
    // The slot service answers with and without the trailing slash.
    if (path.size() == kSlots.size() + 1 && path.substr(0, kSlots.size()) == kSlots && path.back() == '/')
        path = kSlots;
    pathKnown = false;
    for (const Route& r : table()) {
        const bool pathMatches = r.prefix ? path.substr(0, r.path.size()) == r.path : path == r.path;
        if (!pathMatches) continue;
        pathKnown = true;
        if (r.method == method) return &r;
    }
    return nullptr;
}

ApiRouter::AuthRule ApiRouter::ruleFor(std::string_view method, std::string_view path, ErrorStyle& errors) {
    bool pathKnown = false;
    errors = ErrorStyle::Api;
    if (const Route* r = find(method, path, pathKnown)) {
        errors = r->errors;
        return r->auth;
    }
    // A known path with another method: the credential its first route asks for comes
    // first, so that the method of an endpoint tells nothing to a stranger.
    if (pathKnown) {
        for (std::string_view other : {"GET", "POST"}) {
            bool known = false;
            if (const Route* r = find(other, path, known)) {
                errors = r->errors;
                return r->auth;
            }
        }
    }
    return path.substr(0, kApi.size()) == kApi ? AuthRule::Account : AuthRule::None;
}

ApiRouter::ApiRouter(CloudService& service, const OperatorCredential& operatorCredential,
                     std::string defaultAuthority)
    : service_(service), operator_(operatorCredential), defaultAuthority_(std::move(defaultAuthority)) {}

RouteLimits ApiRouter::limits(std::string_view method, std::string_view path) const {
    bool pathKnown = false;
    ErrorStyle errors;
    RouteLimits out;
    out.needsToken = ruleFor(method, path, errors) != AuthRule::None;
    if (const Route* r = find(method, path, pathKnown)) {
        out.bodyLimit = r->bodyLimit;
        out.lane = r->lane;
    } else {
        // Unknown endpoints and wrong methods are answered after a small body is read.
        out.bodyLimit = kMaxJsonBody;
    }
    return out;
}

std::string ApiRouter::loggablePath(std::string_view path) {
    if (path.substr(0, kPublic.size()) == kPublic) {
        std::string_view rest = path.substr(kPublic.size());
        auto slash = rest.find('/');
        return std::string(kPublic) + "***" + std::string(slash == std::string_view::npos ? "" : rest.substr(slash));
    }
    std::string out(path.substr(0, 512));
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    return out;
}

ApiRouter::Call ApiRouter::authorize(const HttpRequest& req, AuthRule rule) {
    Call call{req};
    switch (rule) {
    case AuthRule::None: return call;
    case AuthRule::OperatorOrAccount:
        if (operator_.matches(bearerToken(req))) {
            call.isOperator = true;
            return call;
        }
        [[fallthrough]];
    case AuthRule::Account: call.account = service_.authenticate(bearerToken(req)); return call;
    case AuthRule::BuildRole:
        call.account = service_.authenticate(bearerToken(req));
        if (!service_.meta().hasRole(call.account, CloudService::kBuildRole))
            throw ApiError(ErrorCode::Forbidden, "This account has no build role: it may not use build slots");
        return call;
    }
    return call;
}

namespace {

constexpr std::size_t kMaxRecentCredentials = 10000;

std::string recentKey(const HttpRequest& request, ApiRouter::AuthRule rule) {
    return Secrets::sha256(bearerToken(request)) + static_cast<char>(rule);
}

}  // namespace

bool ApiRouter::credentialRecentlyAccepted(const HttpRequest& request) {
    ErrorStyle errors;
    const std::string key = recentKey(request, ruleFor(request.method, request.path, errors));
    std::lock_guard lock(recentMutex_);
    const auto it = recent_.find(key);
    return it != recent_.end() &&
           std::chrono::steady_clock::now() - it->second < std::chrono::seconds(kRecentCredentialSeconds);
}

std::optional<HttpResponse> ApiRouter::refuseCredential(const HttpRequest& request) {
    ErrorStyle errors = ErrorStyle::Api;
    try {
        const AuthRule rule = ruleFor(request.method, request.path, errors);
        authorize(request, rule);
        const std::string key = recentKey(request, rule);
        std::lock_guard lock(recentMutex_);
        if (recent_.size() >= kMaxRecentCredentials) recent_.clear();
        recent_[key] = std::chrono::steady_clock::now();
        return std::nullopt;
    } catch (const ApiError& e) {
        return refusal(e, errors);
    } catch (const std::exception& e) {
        std::cerr << "error: " << loggablePath(request.path) << ": " << e.what() << std::endl;
        return refusal(ApiError(ErrorCode::Internal, "Internal error"), errors);
    }
}

HttpResponse ApiRouter::handle(const HttpRequest& request) {
    service_.stats().requests++;
    ErrorStyle errors = ErrorStyle::Api;
    try {
        return route(request, errors);
    } catch (const ApiError& e) {
        return refusal(e, errors);
    } catch (const std::exception& e) {
        std::cerr << "error: " << loggablePath(request.path) << ": " << e.what() << std::endl;
        return refusal(ApiError(ErrorCode::Internal, "Internal error"), errors);
    }
}

HttpResponse ApiRouter::route(const HttpRequest& req, ErrorStyle& errors) {
    const Call call = authorize(req, ruleFor(req.method, req.path, errors));
    if (call.account) service_.stats().ofAccount(call.account).requests++;
    bool pathKnown = false;
    const Route* r = find(req.method, req.path, pathKnown);
    if (!r && pathKnown) throw ApiError(ErrorCode::BadInput, "Use another method for " + loggablePath(req.path), 405);
    if (!r) unknownEndpoint(req);
    return (this->*(r->handler))(call);
}

// ---- handlers ----

HttpResponse ApiRouter::info(const Call&) {
    return jsonAnswer(json::object{{"service", "zarnu-cloud"},
                                   {"version", ZARNU_VERSION},
                                   {"api", 1},
                                   {"max_part_size", Fingerprint::kMaxPartSize},
                                   {"max_upload_parts", PartBatch::kMaxUploadParts},
                                   {"max_download_parts", CloudService::kMaxDownloadParts},
                                   {"max_download_bytes", CloudService::kMaxDownloadBytes}});
}

HttpResponse ApiRouter::stats(const Call& call) {
    if (!call.isOperator) {
        // An account sees only what it did itself: nothing here depends on what other
        // accounts stored.
        const AccountStats& s = service_.stats().ofAccount(call.account);
        return jsonAnswer(json::object{{"scope", "account"},
                                       {"requests", s.requests.load()},
                                       {"parts_received", s.partsReceived.load()},
                                       {"bytes_received", s.bytesReceived.load()},
                                       {"parts_rejected", s.partsRejected.load()},
                                       {"parts_sent", s.partsSent.load()},
                                       {"bytes_sent", s.bytesSent.load()},
                                       {"files_created", s.filesCreated.load()},
                                       {"logins", s.logins.load()}});
    }
    const Stats& s = service_.stats();
    return jsonAnswer(json::object{{"scope", "service"},
                                   {"requests", s.requests.load()},
                                   {"parts_received", s.partsReceived.load()},
                                   {"bytes_received", s.bytesReceived.load()},
                                   {"parts_stored", s.partsStored.load()},
                                   {"bytes_stored", s.bytesStored.load()},
                                   {"parts_rejected", s.partsRejected.load()},
                                   {"parts_sent", s.partsSent.load()},
                                   {"bytes_sent", s.bytesSent.load()},
                                   {"files_created", s.filesCreated.load()},
                                   {"logins", s.logins.load()},
                                   {"logins_failed", s.loginsFailed.load()},
                                   {"logins_throttled", s.loginsThrottled.load()}});
}

HttpResponse ApiRouter::login(const Call& call) {
    const HttpRequest& req = call.request;
    Fields f(req.body);
    LoginResult r;
    const bool byPassword = !f.find("token");
    const std::string user = byPassword ? f.string("username", false) : std::string();
    if (!byPassword) {
        r = service_.loginWithToken(f.string("token"));
    } else if (f.find("username") && f.find("password")) {
        // Checked before the password is hashed: a throttled attempt costs no hashing.
        const auto now = LoginThrottle::Clock::now();
        if (const std::int64_t wait = throttle_.secondsToWait(user, req.peerAddress, now)) {
            service_.stats().loginsThrottled++;
            ApiError e(ErrorCode::TooManyLogins,
                       "Too many failed logins: try again in " + std::to_string(wait) + " seconds");
            e.retryAfterSeconds = wait;
            throw e;
        }
        try {
            r = service_.loginWithPassword(user, f.string("password"));
        } catch (const ApiError& e) {
            if (e.code() == ErrorCode::BadLogin) throttle_.failed(user, req.peerAddress, now);
            throw;
        }
        throttle_.succeeded(user);
    } else {
        throw ApiError(ErrorCode::BadInput, "A login needs \"username\" and \"password\", or \"token\"");
    }
    service_.stats().ofAccount(r.account.id).logins++;
    return jsonAnswer(json::object{{"usernames", json::array{json::value(r.account.name)}},
                                   {"token", r.token},
                                   {"account_id", r.account.id},
                                   {"display_name", r.account.displayName}});
}

HttpResponse ApiRouter::logout(const Call& call) {
    service_.logout(bearerToken(call.request));
    {
        std::lock_guard lock(recentMutex_);
        for (AuthRule rule : {AuthRule::Account, AuthRule::BuildRole, AuthRule::OperatorOrAccount})
            recent_.erase(recentKey(call.request, rule));
    }
    return jsonAnswer(json::object{{"result", "ok"}});
}

HttpResponse ApiRouter::uploadParts(const Call& call) {
    AccountStats& mine = service_.stats().ofAccount(call.account);
    std::size_t n = 0;
    try {
        n = service_.uploadParts(call.account, call.request.body);
    } catch (const ApiError& e) {
        if (e.code() == ErrorCode::PartInvalid) mine.partsRejected++;
        throw;
    }
    mine.partsReceived += n;
    mine.bytesReceived += uploadedPartBytes(call.request.body);
    return jsonAnswer(json::object{{"received", n}});
}

HttpResponse ApiRouter::list(const Call& call) {
    Fields f(call.request.body);
    ListRequest lr;
    lr.path = f.string("path");
    lr.filter = f.string("filter", false);
    lr.recurse = f.boolean("recurse");
    lr.partLimit = f.unsignedInt("part_limit", 0);
    lr.pageSize = f.unsignedInt("page_size", 1000);
    (void)f.boolean("include_excludes");
    lr.includeParts = f.boolean("include_parts");
    lr.includeDeleted = f.boolean("include_deleted");
    lr.cursor = f.string("cursor", false);
    ListPage page = service_.list(call.account, lr);
    json::array entries;
    for (const auto& le : page.entries) entries.push_back(entryJson(le.entry, lr.includeParts ? &le.parts : nullptr));
    return jsonAnswer(json::object{{"entries", std::move(entries)}, {"more", page.more}, {"cursor", page.cursor}});
}

HttpResponse ApiRouter::missingParts(const Call& call) {
    Fields f(call.request.body);
    json::array missing;
    for (auto& fp : service_.missingParts(call.account, f.strings("fingerprints"))) missing.emplace_back(fp);
    return jsonAnswer(json::object{{"missing", std::move(missing)}});
}

HttpResponse ApiRouter::createFile(const Call& call) {
    Fields f(call.request.body);
    std::optional<std::int64_t> modified;
    if (const json::value* m = f.find("modified")) {
        if (!m->is_int64() && !m->is_uint64()) throw ApiError(ErrorCode::BadInput, "\"modified\" must be an integer");
        modified = m->is_int64() ? m->as_int64() : static_cast<std::int64_t>(m->as_uint64());
    }
    Entry e = service_.createFile(call.account, f.string("path"), f.parts("parts"), modified, ifVersionOf(f));
    service_.stats().ofAccount(call.account).filesCreated++;
    return jsonAnswer(json::object{{"entry", entryJson(e, nullptr)}});
}

HttpResponse ApiRouter::downloadParts(const Call& call) {
    Fields f(call.request.body);
    const auto id = f.unsignedInt("id", 0, true);
    auto parts = service_.downloadParts(call.account, static_cast<EntryId>(id), f.strings("fingerprints"));
    json::array manifest;
    HttpResponse r;
    AccountStats& mine = service_.stats().ofAccount(call.account);
    for (auto& p : parts) {
        const char* status = p.status == DownloadedPart::Status::Ok      ? "ok"
                             : p.status == DownloadedPart::Status::Later ? "later"
                                                                         : "missing";
        const std::uint64_t size = p.file ? p.file->size : 0;
        manifest.push_back(json::object{{"fingerprint", p.fingerprint}, {"size", size}, {"status", status}});
        if (p.file) {
            mine.partsSent++;
            mine.bytesSent += size;
            r.files.push_back(std::move(*p.file));
        }
    }
    r.contentType = "application/octet-stream";
    r.body = json::serialize(json::object{{"parts", std::move(manifest)}});
    r.body += '\n';
    return r;
}

HttpResponse ApiRouter::makeFolder(const Call& call) {
    Fields f(call.request.body);
    return jsonAnswer(json::object{{"entry", entryJson(service_.makeFolder(call.account, f.string("path")), nullptr)}});
}

HttpResponse ApiRouter::remove(const Call& call) {
    Fields f(call.request.body);
    return jsonAnswer(changeJson(service_.remove(call.account, f.string("path"), ifVersionOf(f)), "deleted"));
}

HttpResponse ApiRouter::undelete(const Call& call) {
    Fields f(call.request.body);
    auto selector = f.unsignedInt("deleted", kLatestDeleted);
    return jsonAnswer(changeJson(service_.undelete(call.account, f.string("path"), selector), "restored"));
}

HttpResponse ApiRouter::changes(const Call& call) {
    Fields f(call.request.body);
    FeedPage page = service_.changes(call.account, f.string("cursor", false), f.unsignedInt("timeout", 0),
                                     f.unsignedInt("limit", 1000));
    json::array changes;
    for (const TreeChange& change : page.changes) changes.push_back(feedJson(service_, change));
    return jsonAnswer(json::object{
        {"changes", std::move(changes)}, {"cursor", page.cursor}, {"more", page.more}, {"reset", page.reset}});
}

HttpResponse ApiRouter::createLink(const Call& call) {
    const HttpRequest& req = call.request;
    Fields f(req.body);
    std::string linkToken = service_.createLink(call.account, f.strings("paths"));
    std::string authority = usableHost(req.host) ? req.host : defaultAuthority_;
    std::string link = std::string(req.tls ? "https://" : "http://") + authority + std::string(kPublic) + linkToken;
    return jsonAnswer(json::object{{"link", link}, {"token", linkToken}});
}

HttpResponse ApiRouter::publicLink(const Call& call) {
    const HttpRequest& req = call.request;
    std::string_view rest = std::string_view(req.path).substr(kPublic.size());
    const auto slash = rest.find('/');
    const std::string token(rest.substr(0, slash));
    std::optional<Entry> file;
    if (slash != std::string_view::npos) {
        std::string_view tail = rest.substr(slash);
        constexpr std::string_view filePrefix = "/file/";
        if (tail.substr(0, filePrefix.size()) != filePrefix) unknownEndpoint(req);
        tail.remove_prefix(filePrefix.size());
        EntryId id = 0;
        auto [end, ec] = std::from_chars(tail.data(), tail.data() + tail.size(), id);
        if (ec != std::errc() || end != tail.data() + tail.size())
            throw ApiError(ErrorCode::NotFound, "The file specified does not exist");
        file = service_.linkedFile(token, id);
    } else {
        LinkView view = service_.openLink(token);
        if (view.singleFile) {
            file = view.files.front();
        } else {
            json::array entries;
            for (const auto& f : view.files)
                entries.push_back(json::object{{"path", CloudPath::pathOfKey(f.key)},
                                               {"name", f.name},
                                               {"size", f.size},
                                               {"modified", f.modified},
                                               {"url", std::string(kPublic) + token + "/file/" + std::to_string(f.id)}});
            return jsonAnswer(json::object{{"entries", std::move(entries)}});
        }
    }
    HttpResponse r;
    r.contentType = "application/octet-stream";
    r.headers.emplace_back("Content-Disposition", "attachment; filename*=UTF-8''" + percentEncode(file->name));
    r.stream = service_.fileBytes(*file);
    r.streamSize = file->size;
    return r;
}

HttpResponse ApiRouter::getSlots(const Call& call) {
    HttpResponse r;
    r.body = BuildSlots::load(service_.meta(), call.account);
    return r;
}

HttpResponse ApiRouter::postSlots(const Call& call) {
    try {
        BuildSlots::store(service_.meta(), call.account, call.request.body);
    } catch (const std::invalid_argument& e) {
        return slotsAnswer(e.what(), 400);
    }
    return slotsAnswer("", 200);
}

}  // namespace zarnu::cloud
