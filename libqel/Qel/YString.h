// Qel::YString: the string type of every interface in the system.
//
// A YString holds UTF-8 bytes. It is a std::string (all of its operations are
// available) with a distinct type, so that interfaces and type names say
// "YString", plus a few UTF-8 aware helpers. Thread-safety: as std::string.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace Qel {

class YString : public std::string {
 public:
  YString() = default;
  YString(const char* text) : std::string(text ? text : "") {}
  YString(const char* text, size_t length) : std::string(text, length) {}
  YString(std::string text) : std::string(std::move(text)) {}
  YString(std::string_view text) : std::string(text) {}
  YString(size_t count, char c) : std::string(count, c) {}

  // Number of UTF-8 characters (lead bytes); a stray continuation byte counts
  // as part of the character before it.
  size_t CharLength() const;

  // Byte size of the UTF-8 character that starts with `lead` (1 for an
  // invalid lead byte, so that walking never stalls).
  static size_t Utf8CharSize(unsigned char lead);

  // True when the bytes form valid UTF-8 (no overlong forms, no surrogates).
  bool IsValidUtf8() const;

  // ASCII-only case folding (A-Z to a-z); other bytes are kept as they are.
  YString ToLowerAscii() const;
  bool EqualsIgnoreCaseAscii(std::string_view other) const;
  bool StartsWith(std::string_view prefix) const { return std::string_view(*this).starts_with(prefix); }
  bool EndsWith(std::string_view suffix) const { return std::string_view(*this).ends_with(suffix); }
};

}  // namespace Qel

template <>
struct std::hash<Qel::YString> {
  size_t operator()(const Qel::YString& s) const noexcept { return std::hash<std::string>()(s); }
};
