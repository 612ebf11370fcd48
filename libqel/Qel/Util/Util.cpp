#include "Qel/Util/Util.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <sstream>

#include "Qel/Exception/YError.h"

namespace Qel::Util {

namespace {

constexpr const char* kFile = "libqel/Qel/Util/Util";

template <class T>
T Extract(const YString& original, const YString& digits, bool hex) {
  std::istringstream in(digits);
  if (hex) in >> std::hex;
  T value{};
  in >> value;
  if (in.fail()) QEL_RAISE(15, 118, original, kFile, "StringToNumber");
  return value;
}

}  // namespace

template <class T>
T StringToNumber(const YString& text) {
  if (text.size() >= 2 && text[0] == '0' && text[1] == 'x') return Extract<T>(text, text.substr(2), true);
  return Extract<T>(text, text, false);
}

template <class T>
T StringToNumber(const YString& text, bool hexDefault) {
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
    return Extract<T>(text, text.substr(2), true);
  return Extract<T>(text, text, hexDefault);
}

template <>
bool StringToNumber<bool>(const YString& text) {
  if (text.size() >= 4 && YString(text.substr(0, 4)).EqualsIgnoreCaseAscii("true")) return true;
  if (text.size() >= 5 && YString(text.substr(0, 5)).EqualsIgnoreCaseAscii("false")) return false;
  std::istringstream in(text);
  bool value = false;
  in >> value;
  if (in.fail()) QEL_RAISE(15, 118, text, kFile, "StringToNumber<bool>");
  return value;
}

template <class T>
YString NumberToString(T number) {
  std::ostringstream out;
  out << number;
  return YString(out.str());
}

#define QEL_INSTANTIATE(T)                                   \
  template T StringToNumber<T>(const YString&);              \
  template T StringToNumber<T>(const YString&, bool);        \
  template YString NumberToString<T>(T);
QEL_INSTANTIATE(unsigned int)
QEL_INSTANTIATE(int)
QEL_INSTANTIATE(unsigned long)
QEL_INSTANTIATE(long)
QEL_INSTANTIATE(unsigned long long)
QEL_INSTANTIATE(long long)
#undef QEL_INSTANTIATE
template YString NumberToString<double>(double);

YString QuotifyEx(const YString& text, const YString& quote) { return quote + text + quote; }

std::vector<YString> SplitString(const YString& text, char separator) {
  std::vector<YString> out;
  if (text.empty()) return out;
  size_t start = 0;
  while (true) {
    size_t pos = text.find(separator, start);
    if (pos == YString::npos) {
      out.emplace_back(text.substr(start));
      break;
    }
    out.emplace_back(text.substr(start, pos - start));
    start = pos + 1;
  }
  return out;
}

YString Trim(const YString& text) {
  const char* ws = " \t\r\n";
  size_t b = text.find_first_not_of(ws);
  if (b == YString::npos) return YString();
  size_t e = text.find_last_not_of(ws);
  return YString(text.substr(b, e - b + 1));
}

YString ParseTypeName(const std::type_info& type) {
  if (type == typeid(int)) return "int";
  if (type == typeid(YString)) return "YString";
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && name ? YString(name.get()) : YString(type.name());
}

}  // namespace Qel::Util
