// Field reads of YObject.
//
//   accessor                  accepts            result
//   Get<YString>              any kind           AsString() of the value
//   Get<bool>                 any kind           bool; number != 0; else the text read as a boolean
//   Get<unsigned long long>   number or string   number; string read as decimal ("0x" for hex)
//   Get<YObject>              object             a copy (attachment list shared)
//   Get<YArray>               array              a copy (element pointers shared)
//   Get<Bytes>                string             attachment "BinaryIndex-<n>" moved out, or Base64
//
// Failures raise code 56 with the texts below (118, log type 15, for texts
// that are not numbers or booleans); the labels are the function names the
// errors carry.
#include "Qel/JSON/YObject.h"

#include "Qel/Exception/YError.h"
#include "Qel/JSON/YValue.h"
#include "Qel/Log/YLog.h"
#include "Qel/Util/Util.h"

namespace Qel::JSON {

namespace {

constexpr const char* kFile = "libqel/Qel/JSON/YObject";
constexpr const char* kClassPrefix = "Qel::JSON::YObject";
constexpr const char* kBinaryPrefix = "BinaryIndex-";

// Logs `logLine` (when given and enabled) under the class prefix, then raises
// code 56 with `info`; Raise logs the summary line under the log type.
[[noreturn]] void Fail(unsigned int logType, const char* label, unsigned int line, const YString& logLine,
                       const YString& info) {
  Log::YLog& log = Log::GetGlobalLogger();
  if (!logLine.empty() && log.IsEnabled(logType)) log.WriteWithPrefix(logType, kClassPrefix, logLine);
  Exception::YError e(logType, 56, 0, line, kFile, label);
  e.SetInfo(info);
  Exception::Raise(std::move(e));
}

[[noreturn]] void Missing(unsigned int logType, const char* label, unsigned int line, const YString& name) {
  Fail(logType, label, line, "Failed to find field " + name, "Required field missing " + name);
}

const YValuePtr* Find(const YObject::Members& members, const YString& name) {
  auto it = members.find(name);
  return it == members.end() ? nullptr : &it->second;
}

const YValue& NullValue() {
  static const YValue null;
  return null;
}

}  // namespace

YObject::YObject() : attachments_(std::make_shared<AttachmentList>()) {}

YObject& YObject::Set(const YString& name, YValuePtr value) {
  members_[name] = std::move(value);
  return *this;
}

YObject& YObject::Set(const YString& name, const YValue& value) {
  return Set(name, std::make_shared<YValue>(value));
}

YObject& YObject::SetBinary(const YString& name, const Bytes& bytes) {
  if (!attachments_) attachments_ = std::make_shared<AttachmentList>();
  Set(name, YValue(YString(kBinaryPrefix + std::to_string(attachments_->size()))));
  attachments_->emplace_back(name, bytes.Duplicate());
  return *this;
}

YString YObject::Stringify(bool pretty) const { return YValue(*this).Stringify(pretty); }

template <>
YString YObject::Get<YString>(const YString& name, unsigned int logType) const {
  const YValuePtr* v = Find(members_, name);
  if (!v) Missing(logType, "Get<Qel::YString>", __LINE__, name);
  return (*v ? **v : NullValue()).AsString();
}

template <>
bool YObject::Get<bool>(const YString& name, unsigned int logType) const {
  const YValuePtr* v = Find(members_, name);
  if (!v) Missing(logType, "Get<bool>", __LINE__, name);
  const YValue& value = *v ? **v : NullValue();
  if (value.IsBool()) return value.AsBool();
  if (value.IsNumber()) return value.AsDouble() != 0.0;
  return Util::StringToNumber<bool>(value.AsString());
}

template <>
unsigned long long YObject::Get<unsigned long long>(const YString& name, unsigned int logType) const {
  const YValuePtr* v = Find(members_, name);
  if (!v) Missing(logType, "Get<long long unsigned int>", __LINE__, name);
  const YValue& value = *v ? **v : NullValue();
  if (value.IsNumber()) return value.AsNumber();
  if (value.IsString()) return Util::StringToNumber<unsigned long long>(value.AsString(), false);
  const YString text = "Field was not of json-type Number or String " + name;
  Fail(logType, "Get<long long unsigned int>", __LINE__, text, text);
}

template <>
YObject YObject::Get<YObject>(const YString& name, unsigned int logType) const {
  const YValuePtr* v = Find(members_, name);
  if (!v || !*v) Missing(logType, "Get<Qel::JSON::YObject>", __LINE__, name);
  // The const AsObject: the non-const one would turn a field of another kind
  // into an empty object inside this (const) object.
  const YValue& value = **v;
  return value.AsObject();
}

template <>
YArray YObject::Get<YArray>(const YString& name, unsigned int logType) const {
  const YValuePtr* v = Find(members_, name);
  if (!v) Missing(logType, "Get<std::vector<boost::shared_ptr<Qel::JSON::YValue> > >", __LINE__, name);
  return (*v ? **v : NullValue()).AsArray();
}

template <>
YObject::Bytes YObject::Get<YObject::Bytes>(const YString& name, unsigned int logType) const {
  constexpr const char* kLabel = "Get<Qel::Memory::YHeapPtr<unsigned char> >";
  const YValuePtr* v = Find(members_, name);
  if (!v) Missing(logType, kLabel, __LINE__, name);
  const YValue& value = *v ? **v : NullValue();
  if (!value.IsString()) {
    Fail(logType, kLabel, __LINE__, "Field was not of json-type String " + name, "Field was not of String " + name);
  }
  const YString text = value.AsString();
  if (!text.StartsWith(kBinaryPrefix)) return Base64Decode(text);
  const unsigned long long index =
      Util::StringToNumber<unsigned long long>(YString(text.substr(text.find('-') + 1)), false);
  if (!attachments_ || index >= attachments_->size()) {
    Fail(logType, kLabel, __LINE__, YString(), "Required field missing data " + name);
  }
  return std::move((*attachments_)[index].second);
}

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
}

YString YObject::Base64Encode(const unsigned char* data, size_t size) {
  YString out;
  out.reserve((size + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < size; i += 3) {
    unsigned int n = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (i < size) {
    unsigned int n = data[i] << 16;
    if (i + 1 < size) n |= data[i + 1] << 8;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += (i + 1 < size) ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

YObject::Bytes YObject::Base64Decode(const YString& text) {
  // Standard alphabet; "-" and "_" are read as "+" and "/"; padding, blanks
  // and other bytes are skipped.
  Bytes out("Base64 data");
  out.Reserve(text.size() / 4 * 3 + 3);
  unsigned int acc = 0;
  int bits = 0;
  for (unsigned char c : text) {
    int v;
    if (c >= 'A' && c <= 'Z') v = c - 'A';
    else if (c >= 'a' && c <= 'z') v = c - 'a' + 26;
    else if (c >= '0' && c <= '9') v = c - '0' + 52;
    else if (c == '+' || c == '-') v = 62;
    else if (c == '/' || c == '_') v = 63;
    else continue;
    acc = (acc << 6) | static_cast<unsigned int>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      unsigned char byte = static_cast<unsigned char>((acc >> bits) & 0xFF);
      out.Append(&byte, 1);
    }
  }
  return out;
}

}  // namespace Qel::JSON
