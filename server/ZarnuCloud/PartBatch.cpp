#include "PartBatch.h"

#include "ApiError.h"
#include "Fingerprint.h"

#include <boost/json.hpp>

namespace zarnu::cloud {

namespace json = boost::json;

std::vector<UploadedPart> PartBatch::parseUpload(std::string_view body) {
    auto bad = [](const std::string& why) { return ApiError(ErrorCode::BadInput, "Invalid upload body: " + why); };
    const std::size_t nl = body.substr(0, kMaxManifestBytes + 1).find('\n');
    if (nl == std::string_view::npos) throw bad("no manifest line within the first 65536 bytes");
    json::error_code ec;
    json::value manifest = json::parse(body.substr(0, nl), ec);
    if (ec || !manifest.is_object()) throw bad("the manifest is not a JSON object");
    const json::value* partsValue = manifest.as_object().if_contains("parts");
    if (!partsValue || !partsValue->is_array()) throw bad("the manifest has no \"parts\" array");
    const json::array& parts = partsValue->as_array();
    if (parts.empty()) throw bad("the batch holds no part");
    if (parts.size() > kMaxUploadParts)
        throw ApiError(ErrorCode::TooLarge, "The request is too large: a batch holds at most 5 parts");

    std::vector<UploadedPart> out;
    std::string_view rest = body.substr(nl + 1);
    for (const json::value& v : parts) {
        const json::object* o = v.if_object();
        const json::value* fp = o ? o->if_contains("fingerprint") : nullptr;
        const json::value* size = o ? o->if_contains("size") : nullptr;
        if (!fp || !fp->is_string() || !size || !(size->is_uint64() || size->is_int64()))
            throw bad("every part needs a string \"fingerprint\" and an integer \"size\"");
        std::string fingerprint(fp->as_string());
        if (!Fingerprint::isWellFormed(fingerprint)) throw bad("malformed fingerprint " + fingerprint.substr(0, 80));
        std::int64_t n = size->is_int64() ? size->as_int64() : static_cast<std::int64_t>(size->as_uint64());
        if (n < 1 || static_cast<std::uint64_t>(n) > Fingerprint::kMaxPartSize)
            throw bad("a part size must be between 1 and 1048576");
        if (static_cast<std::uint64_t>(n) > rest.size()) throw bad("the body is shorter than the sizes add up to");
        out.push_back({std::move(fingerprint), rest.substr(0, static_cast<std::size_t>(n))});
        rest.remove_prefix(static_cast<std::size_t>(n));
    }
    if (!rest.empty()) throw bad("the body is longer than the sizes add up to");
    return out;
}

std::string PartBatch::makeUpload(const std::vector<std::string_view>& parts) {
    json::array list;
    for (auto p : parts) list.push_back(json::object{{"fingerprint", Fingerprint::of(p)}, {"size", p.size()}});
    std::string out = json::serialize(json::object{{"parts", std::move(list)}});
    out += '\n';
    for (auto p : parts) out.append(p);
    return out;
}

}  // namespace zarnu::cloud
