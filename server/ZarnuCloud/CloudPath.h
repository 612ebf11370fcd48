#pragma once
// Cloud paths as clients send them ("/docs/report.txt") and the sort keys the metadata
// store orders entries by. Everything here is pure and thread-safe.
//
// A valid path is "/" or "/" followed by components joined by single '/'. A component
// is 1..255 bytes of valid UTF-8 without NUL, control characters, DEL or backslash and
// is neither "." nor "..". Paths are at most 4096 bytes and 256 components deep.
//
// The sort key of a path is its components each preceded by the byte 0x01 ("" for the
// root). 0x01 sorts below every byte a name may contain, so ordering keys byte-wise
// gives a depth-first order with parents before children and siblings in name order,
// and the descendants of key K are exactly the keys starting with K + 0x01.

#include <string>
#include <string_view>
#include <vector>

namespace zarnu::cloud {

class CloudPath {
public:
    static constexpr std::size_t kMaxPathBytes = 4096;
    static constexpr std::size_t kMaxComponentBytes = 255;
    static constexpr std::size_t kMaxDepth = 256;
    static constexpr char kSeparator = '\x01';

    /// Splits and validates a path; throws ApiError (code 55) naming the problem.
    static std::vector<std::string> parse(std::string_view path);

    /// "/" + components joined by "/".
    static std::string join(const std::vector<std::string>& components);

    static std::string keyOf(const std::vector<std::string>& components);
    static std::string pathOfKey(std::string_view key);
    /// Key of the parent; the root's parent is the root.
    static std::string parentKey(std::string_view key);
    /// First key past every descendant of key (exclusive upper bound).
    static std::string descendantsEnd(std::string_view key);
    /// True when key lies strictly below ancestor.
    static bool isDescendant(std::string_view key, std::string_view ancestor);

    /// Whether a component holds the wild cards '*' or '?'.
    static bool hasWildcard(std::string_view component);
};

/// Strict UTF-8 check: refuses overlong forms, surrogates and code points past U+10FFFF.
bool isValidUtf8(std::string_view text);

}  // namespace zarnu::cloud
