#include "Sync/YCloudNames.h"

#include <cstdint>

namespace Agent::Sync {

namespace {

constexpr size_t kMaxComponentBytes = 255;
constexpr size_t kMaxPathBytes = 4096;
constexpr size_t kMaxDepth = 256;

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsValidUtf8(const Qel::YString& text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    const unsigned char c = *p;
    size_t extra = 0;
    uint32_t cp = 0;
    if (c < 0x80) {
      ++p;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      extra = 1;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (static_cast<size_t>(end - p) <= extra) return false;
    for (size_t i = 1; i <= extra; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    const uint32_t minimum = extra == 1 ? 0x80 : extra == 2 ? 0x800 : 0x10000;
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    p += extra + 1;
  }
  return true;
}

}  // namespace

Qel::YString CheckCloudName(const Qel::YString& relative) {
  if (relative.size() > kMaxPathBytes - 1) return "the path is longer than 4096 bytes";
  if (!IsValidUtf8(relative)) return "the name is not valid UTF-8";
  size_t depth = 0;
  size_t start = 0;
  while (start <= relative.size()) {
    size_t end = relative.find('/', start);
    if (end == Qel::YString::npos) end = relative.size();
    const std::string_view component(relative.data() + start, end - start);
    if (component.empty() || component == "." || component == "..") return "the name is empty, \".\" or \"..\"";
    if (component.size() > kMaxComponentBytes) return "a name is longer than 255 bytes";
    for (const char ch : component) {
      const auto c = static_cast<unsigned char>(ch);
      if (c < 0x20 || c == 0x7F) return "the name holds a control character";
      if (c == '\\') return "the name holds a backslash";
    }
    if (++depth > kMaxDepth) return "the path is deeper than 256 folders";
    start = end + 1;
  }
  return {};
}

}  // namespace Agent::Sync
