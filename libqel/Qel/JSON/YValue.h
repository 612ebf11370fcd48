// Qel::JSON::YValue: one JSON value of the runtime, and the parser.
//
// A value is null, a boolean, a number (kept as a signed or unsigned 64-bit
// integer when it is integral, else a double), a string, an object (YObject)
// or an array of shared values. Values are plain data; share them through
// YValuePtr. Thread-safety: none; one thread at a time per value.
#pragma once

#include <cstdint>
#include <memory>
#include <variant>
#include <vector>

#include "Qel/JSON/YObject.h"
#include "Qel/YString.h"

namespace Qel::JSON {

class YValue {
 public:
  enum class Kind { kNull, kBool, kNumber, kString, kObject, kArray };

  YValue() = default;  // null
  YValue(std::nullptr_t) {}
  YValue(bool b) : v_(b) {}
  YValue(int n) : v_(static_cast<int64_t>(n)) {}
  YValue(unsigned int n) : v_(static_cast<uint64_t>(n)) {}
  YValue(long n) : v_(static_cast<int64_t>(n)) {}
  YValue(unsigned long n) : v_(static_cast<uint64_t>(n)) {}
  YValue(long long n) : v_(static_cast<int64_t>(n)) {}
  YValue(unsigned long long n) : v_(static_cast<uint64_t>(n)) {}
  YValue(double d) : v_(d) {}
  YValue(const char* s) : v_(YString(s)) {}
  YValue(YString s) : v_(std::move(s)) {}
  YValue(YObject o) : v_(std::move(o)) {}
  YValue(YArray a) : v_(std::move(a)) {}

  Kind GetKind() const;
  bool IsNull() const { return GetKind() == Kind::kNull; }
  bool IsBool() const { return GetKind() == Kind::kBool; }
  bool IsNumber() const { return GetKind() == Kind::kNumber; }
  bool IsString() const { return GetKind() == Kind::kString; }
  bool IsObject() const { return GetKind() == Kind::kObject; }
  bool IsArray() const { return GetKind() == Kind::kArray; }
  // True for a number held as a 64-bit integer rather than a double.
  bool IsInteger() const { return std::holds_alternative<int64_t>(v_) || std::holds_alternative<uint64_t>(v_); }

  // Conversions. AsBool: a boolean, a non-zero number, or a string that begins
  // with "true". AsNumber: an integral number (a negative one wraps), a double
  // truncated, a boolean as 0/1, a decimal string, else 0. AsString: a string
  // as it is, a number in decimal, "true"/"false", "" for null, and the JSON
  // text of an object or array. AsObject/AsArray of another kind give an empty
  // object/array.
  bool AsBool() const;
  unsigned long long AsNumber() const;
  long long AsInteger() const;
  double AsDouble() const;
  YString AsString() const;
  const YObject& AsObject() const;
  YObject& AsObject();
  const YArray& AsArray() const;
  YArray& AsArray();

  // JSON text; `pretty` indents with two blanks per level.
  YString Stringify(bool pretty = false) const;

 private:
  std::variant<std::monostate, bool, int64_t, uint64_t, double, YString, YObject, YArray> v_;
};

// Parses JSON text. Raises code 55 (log type 220) naming the position and the
// parser's reason when the text is not JSON.
YValuePtr Parse(const YString& text);

// Parses JSON text that must hold an object. Raises code 55 otherwise.
YObject ParseObject(const YString& text);

}  // namespace Qel::JSON
