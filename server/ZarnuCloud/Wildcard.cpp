#include "Wildcard.h"

#include <vector>

namespace zarnu::cloud {

namespace {

// Decodes UTF-8 leniently (input was validated when the path was parsed).
std::vector<char32_t> codePoints(std::string_view s) {
    std::vector<char32_t> out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size();) {
        auto c = static_cast<unsigned char>(s[i]);
        std::size_t len = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        char32_t cp = len == 1 ? c : len == 2 ? (c & 0x1F) : len == 3 ? (c & 0x0F) : (c & 0x07);
        for (std::size_t k = 1; k < len && i + k < s.size(); ++k) cp = (cp << 6) | (s[i + k] & 0x3F);
        out.push_back(cp);
        i += len;
    }
    return out;
}

}  // namespace

bool wildcardMatch(std::string_view pattern, std::string_view name) {
    const auto p = codePoints(pattern);
    const auto n = codePoints(name);
    std::size_t pi = 0, ni = 0;
    std::size_t starP = std::string_view::npos, starN = 0;
    while (ni < n.size()) {
        if (pi < p.size() && (p[pi] == U'?' || p[pi] == n[ni])) {
            ++pi;
            ++ni;
        } else if (pi < p.size() && p[pi] == U'*') {
            starP = pi++;
            starN = ni;
        } else if (starP != std::string_view::npos) {
            pi = starP + 1;
            ni = ++starN;
        } else {
            return false;
        }
    }
    while (pi < p.size() && p[pi] == U'*') ++pi;
    return pi == p.size();
}

}  // namespace zarnu::cloud
