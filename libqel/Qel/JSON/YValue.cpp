// YValue and the parser over Boost.JSON. Boost.JSON stays inside this file.
#include "Qel/JSON/YValue.h"

#include <boost/json.hpp>

#include <cmath>
#include <cstdio>

#include "Qel/Exception/YError.h"

namespace Qel::JSON {

namespace {

namespace bj = boost::json;

YValuePtr FromBoost(const bj::value& v) {
  switch (v.kind()) {
    case bj::kind::null: return std::make_shared<YValue>();
    case bj::kind::bool_: return std::make_shared<YValue>(v.get_bool());
    case bj::kind::int64: return std::make_shared<YValue>(static_cast<long long>(v.get_int64()));
    case bj::kind::uint64: return std::make_shared<YValue>(static_cast<unsigned long long>(v.get_uint64()));
    case bj::kind::double_: return std::make_shared<YValue>(v.get_double());
    case bj::kind::string: return std::make_shared<YValue>(YString(std::string_view(v.get_string())));
    case bj::kind::array: {
      YArray arr;
      arr.reserve(v.get_array().size());
      for (const bj::value& e : v.get_array()) arr.push_back(FromBoost(e));
      return std::make_shared<YValue>(std::move(arr));
    }
    case bj::kind::object: {
      YObject obj;
      for (const auto& kv : v.get_object()) obj.Set(YString(std::string_view(kv.key())), FromBoost(kv.value()));
      return std::make_shared<YValue>(std::move(obj));
    }
  }
  return std::make_shared<YValue>();
}

bj::value ToBoost(const YValue& v);

bj::value ToBoostObject(const YObject& o) {
  bj::object out;
  for (const auto& [name, value] : o.GetMembers()) out[name] = value ? ToBoost(*value) : bj::value(nullptr);
  return out;
}

bj::value ToBoost(const YValue& v) {
  switch (v.GetKind()) {
    case YValue::Kind::kNull: return nullptr;
    case YValue::Kind::kBool: return v.AsBool();
    case YValue::Kind::kNumber: {
      // Integers go out exactly, whatever their size; a double with no
      // fraction is written as an integer while it fits one.
      const double d = v.AsDouble();
      if (v.IsInteger()) {
        if (d < 0) return static_cast<int64_t>(v.AsInteger());
        return static_cast<uint64_t>(v.AsNumber());
      }
      if (d != std::floor(d) || std::fabs(d) >= 9.0e18) return d;
      if (d < 0) return static_cast<int64_t>(d);
      return static_cast<uint64_t>(d);
    }
    case YValue::Kind::kString: return bj::string(v.AsString());
    case YValue::Kind::kObject: return ToBoostObject(v.AsObject());
    case YValue::Kind::kArray: {
      bj::array out;
      for (const YValuePtr& e : v.AsArray()) out.push_back(e ? ToBoost(*e) : bj::value(nullptr));
      return out;
    }
  }
  return nullptr;
}

void Pretty(std::string& out, const bj::value& v, int indent) {
  const std::string pad(static_cast<size_t>(indent) * 2, ' ');
  const std::string inner(static_cast<size_t>(indent + 1) * 2, ' ');
  if (v.is_object()) {
    const auto& o = v.get_object();
    if (o.empty()) { out += "{}"; return; }
    out += "{\n";
    size_t i = 0;
    for (const auto& kv : o) {
      out += inner + bj::serialize(bj::value(kv.key())) + ": ";
      Pretty(out, kv.value(), indent + 1);
      out += (++i < o.size()) ? ",\n" : "\n";
    }
    out += pad + "}";
  } else if (v.is_array()) {
    const auto& a = v.get_array();
    if (a.empty()) { out += "[]"; return; }
    out += "[\n";
    for (size_t i = 0; i < a.size(); ++i) {
      out += inner;
      Pretty(out, a[i], indent + 1);
      out += (i + 1 < a.size()) ? ",\n" : "\n";
    }
    out += pad + "]";
  } else {
    out += bj::serialize(v);
  }
}

const YObject& EmptyObject() {
  static const YObject empty;
  return empty;
}

const YArray& EmptyArray() {
  static const YArray empty;
  return empty;
}

}  // namespace

YValue::Kind YValue::GetKind() const {
  switch (v_.index()) {
    case 0: return Kind::kNull;
    case 1: return Kind::kBool;
    case 2: case 3: case 4: return Kind::kNumber;
    case 5: return Kind::kString;
    case 6: return Kind::kObject;
    default: return Kind::kArray;
  }
}

bool YValue::AsBool() const {
  if (auto* b = std::get_if<bool>(&v_)) return *b;
  if (IsNumber()) return AsDouble() != 0.0;
  if (auto* s = std::get_if<YString>(&v_)) return s->size() >= 4 && YString(s->substr(0, 4)).EqualsIgnoreCaseAscii("true");
  return false;
}

unsigned long long YValue::AsNumber() const {
  if (auto* i = std::get_if<int64_t>(&v_)) return static_cast<unsigned long long>(*i);
  if (auto* u = std::get_if<uint64_t>(&v_)) return *u;
  if (auto* d = std::get_if<double>(&v_)) return *d <= 0 ? 0ULL : static_cast<unsigned long long>(*d);
  if (auto* b = std::get_if<bool>(&v_)) return *b ? 1 : 0;
  if (auto* s = std::get_if<YString>(&v_)) return std::strtoull(s->c_str(), nullptr, 10);
  return 0;
}

long long YValue::AsInteger() const {
  if (auto* i = std::get_if<int64_t>(&v_)) return *i;
  if (auto* d = std::get_if<double>(&v_)) return static_cast<long long>(*d);
  if (auto* s = std::get_if<YString>(&v_)) return std::strtoll(s->c_str(), nullptr, 10);
  return static_cast<long long>(AsNumber());
}

double YValue::AsDouble() const {
  if (auto* i = std::get_if<int64_t>(&v_)) return static_cast<double>(*i);
  if (auto* u = std::get_if<uint64_t>(&v_)) return static_cast<double>(*u);
  if (auto* d = std::get_if<double>(&v_)) return *d;
  if (auto* b = std::get_if<bool>(&v_)) return *b ? 1.0 : 0.0;
  if (auto* s = std::get_if<YString>(&v_)) return std::strtod(s->c_str(), nullptr);
  return 0.0;
}

YString YValue::AsString() const {
  if (auto* s = std::get_if<YString>(&v_)) return *s;
  if (std::holds_alternative<std::monostate>(v_)) return YString();
  if (auto* b = std::get_if<bool>(&v_)) return *b ? "true" : "false";
  if (auto* i = std::get_if<int64_t>(&v_)) return YString(std::to_string(*i));
  if (auto* u = std::get_if<uint64_t>(&v_)) return YString(std::to_string(*u));
  return Stringify(false);
}

const YObject& YValue::AsObject() const {
  if (auto* o = std::get_if<YObject>(&v_)) return *o;
  return EmptyObject();
}

YObject& YValue::AsObject() {
  if (!std::holds_alternative<YObject>(v_)) v_ = YObject();
  return std::get<YObject>(v_);
}

const YArray& YValue::AsArray() const {
  if (auto* a = std::get_if<YArray>(&v_)) return *a;
  return EmptyArray();
}

YArray& YValue::AsArray() {
  if (!std::holds_alternative<YArray>(v_)) v_ = YArray();
  return std::get<YArray>(v_);
}

YString YValue::Stringify(bool pretty) const {
  bj::value v = ToBoost(*this);
  if (!pretty) return YString(bj::serialize(v));
  std::string out;
  Pretty(out, v, 0);
  return YString(out);
}

YValuePtr Parse(const YString& text) {
  boost::system::error_code ec;
  bj::value v = bj::parse(text, ec);
  if (ec) {
    QEL_RAISE(220, 55, "Not valid JSON: " + ec.message(), "libqel/Qel/JSON/YValue", "Parse");
  }
  return FromBoost(v);
}

YObject ParseObject(const YString& text) {
  YValuePtr v = Parse(text);
  if (!v->IsObject()) QEL_RAISE(220, 55, "JSON text is not an object", "libqel/Qel/JSON/YValue", "ParseObject");
  return v->AsObject();
}

}  // namespace Qel::JSON
