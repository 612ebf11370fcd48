#include "Qel/YString.h"

namespace Qel {

size_t YString::Utf8CharSize(unsigned char lead) {
  if (lead < 0x80) return 1;
  if ((lead & 0xE0) == 0xC0) return 2;
  if ((lead & 0xF0) == 0xE0) return 3;
  if ((lead & 0xF8) == 0xF0) return 4;
  return 1;
}

size_t YString::CharLength() const {
  size_t count = 0;
  for (unsigned char c : *this) {
    if ((c & 0xC0) != 0x80) ++count;
  }
  return count;
}

bool YString::IsValidUtf8() const {
  const auto* p = reinterpret_cast<const unsigned char*>(data());
  const size_t n = size();
  size_t i = 0;
  while (i < n) {
    unsigned char c = p[i];
    if (c < 0x80) { ++i; continue; }
    size_t len;
    unsigned int cp;
    if ((c & 0xE0) == 0xC0) { len = 2; cp = c & 0x1F; }
    else if ((c & 0xF0) == 0xE0) { len = 3; cp = c & 0x0F; }
    else if ((c & 0xF8) == 0xF0) { len = 4; cp = c & 0x07; }
    else return false;
    if (i + len > n) return false;
    for (size_t k = 1; k < len; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i + k] & 0x3F);
    }
    if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000)) return false;
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += len;
  }
  return true;
}

YString YString::ToLowerAscii() const {
  YString out(*this);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

bool YString::EqualsIgnoreCaseAscii(std::string_view other) const {
  if (other.size() != size()) return false;
  for (size_t i = 0; i < size(); ++i) {
    char a = (*this)[i], b = other[i];
    if (a >= 'A' && a <= 'Z') a = static_cast<char>(a - 'A' + 'a');
    if (b >= 'A' && b <= 'Z') b = static_cast<char>(b - 'A' + 'a');
    if (a != b) return false;
  }
  return true;
}

}  // namespace Qel
