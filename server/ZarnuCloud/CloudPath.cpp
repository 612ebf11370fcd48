#include "CloudPath.h"

#include "ApiError.h"

namespace zarnu::cloud {

bool isValidUtf8(std::string_view text) {
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        unsigned char c = s[i];
        if (c < 0x80) { ++i; continue; }
        std::size_t len;
        char32_t cp;
        if (c >= 0xC2 && c <= 0xDF) { len = 2; cp = c & 0x1F; }
        else if (c >= 0xE0 && c <= 0xEF) { len = 3; cp = c & 0x0F; }
        else if (c >= 0xF0 && c <= 0xF4) { len = 4; cp = c & 0x07; }
        else return false;
        if (i + len > n) return false;
        for (std::size_t k = 1; k < len; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000)) return false;  // overlong
        if (cp >= 0xD800 && cp <= 0xDFFF) return false;                             // surrogate
        if (cp > 0x10FFFF) return false;
        i += len;
    }
    return true;
}

namespace {

[[noreturn]] void refuse(std::string_view path, const std::string& why) {
    std::string shown;
    for (char c : path.substr(0, 200)) shown += (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) ? '?' : c;
    throw ApiError(ErrorCode::BadInput, "Invalid path \"" + (isValidUtf8(shown) ? shown : std::string("<not UTF-8>")) +
                                            "\": " + why);
}

}  // namespace

std::vector<std::string> CloudPath::parse(std::string_view path) {
    if (path.empty() || path.front() != '/') refuse(path, "a path must start with '/'");
    if (path.size() > kMaxPathBytes) refuse(path, "longer than 4096 bytes");
    if (!isValidUtf8(path)) refuse(path, "not valid UTF-8");
    for (char c : path) {
        auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7F) refuse(path, "contains a control character");
        if (c == '\\') refuse(path, "contains a backslash");
    }
    std::vector<std::string> components;
    if (path == "/") return components;
    std::size_t pos = 1;
    while (true) {
        std::size_t slash = path.find('/', pos);
        std::string_view comp = path.substr(pos, slash == std::string_view::npos ? std::string_view::npos : slash - pos);
        if (comp.empty()) refuse(path, "empty component");
        if (comp == "." || comp == "..") refuse(path, "'.' and '..' are not allowed");
        if (comp.size() > kMaxComponentBytes) refuse(path, "a name is longer than 255 bytes");
        components.emplace_back(comp);
        if (components.size() > kMaxDepth) refuse(path, "deeper than 256 levels");
        if (slash == std::string_view::npos) break;
        pos = slash + 1;
    }
    return components;
}

std::string CloudPath::join(const std::vector<std::string>& components) {
    if (components.empty()) return "/";
    std::string out;
    for (const auto& c : components) {
        out += '/';
        out += c;
    }
    return out;
}

std::string CloudPath::keyOf(const std::vector<std::string>& components) {
    std::string key;
    for (const auto& c : components) {
        key += kSeparator;
        key += c;
    }
    return key;
}

std::string CloudPath::pathOfKey(std::string_view key) {
    if (key.empty()) return "/";
    std::string out(key);
    for (char& c : out)
        if (c == kSeparator) c = '/';
    return out;
}

std::string CloudPath::parentKey(std::string_view key) {
    auto pos = key.rfind(kSeparator);
    if (pos == std::string_view::npos) return {};
    return std::string(key.substr(0, pos));
}

std::string CloudPath::descendantsEnd(std::string_view key) {
    std::string end(key);
    end += static_cast<char>(kSeparator + 1);
    return end;
}

bool CloudPath::isDescendant(std::string_view key, std::string_view ancestor) {
    return key.size() > ancestor.size() + 1 && key.substr(0, ancestor.size()) == ancestor &&
           key[ancestor.size()] == kSeparator;
}

bool CloudPath::hasWildcard(std::string_view component) {
    return component.find_first_of("*?") != std::string_view::npos;
}

}  // namespace zarnu::cloud
