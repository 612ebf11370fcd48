#pragma once
// Wild-card matching of one path component: '*' matches any run of characters (also
// none), '?' exactly one character. Characters are UTF-8 code points, so '?' matches
// "é" as one character. Pure and thread-safe; linear memory, no recursion.

#include <string_view>

namespace zarnu::cloud {

bool wildcardMatch(std::string_view pattern, std::string_view name);

}  // namespace zarnu::cloud
