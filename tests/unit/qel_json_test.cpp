// JSON values and YObject's typed field reads: every accessor's results and its
// exact failures, binary attachments, Base64, logging of failures, and the
// parser round trip.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <limits>
#include <sstream>
#include <string>

#include "Qel/Exception/YError.h"
#include "Qel/JSON/YObject.h"
#include "Qel/JSON/YValue.h"
#include "Qel/Log/YLog.h"
#include "qel_test_support.h"

namespace {

using Qel::YString;
using qel_test::Raised;
using Qel::Exception::YError;
using Qel::JSON::ParseObject;
using Qel::JSON::YArray;
using Qel::JSON::YObject;
using Qel::JSON::YValue;
using Bytes = YObject::Bytes;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr const char* kStringLabel = "Get<Qel::YString>";
constexpr const char* kNumberLabel = "Get<long long unsigned int>";
constexpr const char* kObjectLabel = "Get<Qel::JSON::YObject>";
constexpr const char* kArrayLabel = "Get<std::vector<boost::shared_ptr<Qel::JSON::YValue> > >";
constexpr const char* kBytesLabel = "Get<Qel::Memory::YHeapPtr<unsigned char> >";

void ExpectFieldError(const YError& e, unsigned int logType, const char* label, const YString& info) {
  EXPECT_EQ(e.GetCcode(), 56u) << info;
  EXPECT_EQ(e.GetSubCode(), 0u) << info;
  EXPECT_EQ(e.GetLogType(), logType) << info;
  EXPECT_EQ(e.GetFunction(), label) << info;
  EXPECT_EQ(e.GetFile(), "libqel/Qel/JSON/YObject") << info;
  EXPECT_EQ(e.GetInfo(), info);
}

Bytes MakeBytes(const std::string& text) {
  return Bytes("test", reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

std::string Text(const Bytes& b) { return std::string(reinterpret_cast<const char*>(b.Get()), b.GetCount()); }

const char* kSample = R"({"s":"text","n":42,"zero":0,"t":true,"nul":null,"HEX":"0X1f",
  "dec":"42","bad":"abc","True":"True","yes":"yes","half":0.5,
  "o":{"k":[1,2]},"a":[1,"two",{"three":3}],"max":18446744073709551615})";

TEST(QelJsonGet, StringAndBool) {
  const YObject o = ParseObject(kSample);
  EXPECT_EQ(o.Get<YString>("s", 198), "text");
  EXPECT_EQ(o.Get<YString>("n", 198), "42");
  EXPECT_EQ(o.Get<YString>("t", 198), "true");
  EXPECT_EQ(o.Get<YString>("nul", 198), "");
  EXPECT_EQ(o.Get<YString>("o", 198), R"({"k":[1,2]})");
  ExpectFieldError(Raised([&] { o.Get<YString>("S", 198); }), 198, kStringLabel, "Required field missing S");

  EXPECT_TRUE(o.Get<bool>("True", 198));
  EXPECT_FALSE(o.Get<bool>("zero", 198));
  EXPECT_TRUE(o.Get<bool>("half", 198));  // compared as a double, not truncated
  EXPECT_TRUE(o.Get<bool>("t", 198));
  // Unreadable text raises the conversion's own error (QelUtil checks it), not a field error.
  EXPECT_EQ(Raised([&] { o.Get<bool>("yes", 198); }).GetFunction(), "StringToNumber<bool>");
  ExpectFieldError(Raised([&] { o.Get<bool>("nope", 7); }), 7, "Get<bool>", "Required field missing nope");
}

TEST(QelJsonGet, UnsignedNumber) {
  const YObject o = ParseObject(kSample);
  EXPECT_EQ(o.Get<unsigned long long>("HEX", 198), 31u);  // either prefix, as QelUtil's JSON numbers
  EXPECT_EQ(o.Get<unsigned long long>("dec", 198), 42u);
  EXPECT_EQ(o.Get<unsigned long long>("n", 198), 42u);
  EXPECT_EQ(o.Get<unsigned long long>("max", 198), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(Raised([&] { o.Get<unsigned long long>("bad", 198); }).GetFunction(), "StringToNumber");
  for (const char* kind : {"o", "a", "t", "nul"}) {
    ExpectFieldError(Raised([&] { o.Get<unsigned long long>(kind, 198); }), 198, kNumberLabel,
                     YString("Field was not of json-type Number or String ") + kind);
  }
  ExpectFieldError(Raised([&] { o.Get<unsigned long long>("nope", 198); }), 198, kNumberLabel,
                   "Required field missing nope");
}

TEST(QelJsonGet, ObjectAndArray) {
  YObject o = ParseObject(kSample);
  YObject inner = o.Get<YObject>("o", 198);
  EXPECT_EQ(inner.Get<YArray>("k", 198).size(), 2u);
  inner.Set("added", YValue(1));
  EXPECT_FALSE(o.Get<YObject>("o", 198).Has("added"));  // a duplicate, not the member itself

  o.Set("null pointer", Qel::JSON::YValuePtr());
  ExpectFieldError(Raised([&] { o.Get<YObject>("null pointer", 198); }), 198, kObjectLabel,
                   "Required field missing null pointer");
  ExpectFieldError(Raised([&] { o.Get<YObject>("nope", 198); }), 198, kObjectLabel, "Required field missing nope");

  // A field of another kind reads as an empty object and stays as it was.
  EXPECT_EQ(o.Get<YObject>("s", 198).Size(), 0u);
  EXPECT_EQ(o.Get<YString>("s", 198), "text");

  const YArray a = o.Get<YArray>("a", 198);
  ASSERT_EQ(a.size(), 3u);
  EXPECT_EQ(a[1]->AsString(), "two");
  EXPECT_EQ(a[2]->AsObject().Get<unsigned long long>("three", 198), 3u);
  EXPECT_EQ(a[0].get(), o.GetMembers().at("a")->AsArray()[0].get());  // elements shared
  EXPECT_TRUE(o.Get<YArray>("s", 198).empty());
  ExpectFieldError(Raised([&] { o.Get<YArray>("nope", 198); }), 198, kArrayLabel, "Required field missing nope");
}

TEST(QelJsonBinary, AttachmentsAreIndexedSharedAndMovedOut) {
  YObject o;
  Bytes first = MakeBytes("first"), second = MakeBytes("second");
  o.SetBinary("a", first).SetBinary("b", second);
  EXPECT_EQ(o.Get<YString>("a", 198), "BinaryIndex-0");
  EXPECT_EQ(o.Get<YString>("b", 198), "BinaryIndex-1");
  EXPECT_EQ(Text(first), "first");  // the caller keeps its buffer
  EXPECT_THAT(o.Stringify(), testing::Not(HasSubstr("second")));

  o.Set("x", YValue("BinaryIndex-2"));
  ExpectFieldError(Raised([&] { o.Get<Bytes>("x", 198); }), 198, kBytesLabel, "Required field missing data x");

  YObject copy = o;  // shares the attachment list
  copy.SetBinary("c", MakeBytes("third"));
  EXPECT_EQ(o.GetAttachments()->size(), 3u);
  EXPECT_EQ(Text(o.Get<Bytes>("x", 198)), "third");
  EXPECT_TRUE(o.Get<Bytes>("x", 198).IsEmpty());
  EXPECT_TRUE(copy.Get<Bytes>("c", 198).IsEmpty());  // moved out through the other object
  EXPECT_EQ(Text(copy.Get<Bytes>("b", 198)), "second");

  o.Set("lower", YValue("binaryindex-0"));  // not the prefix: Base64 text
  Bytes decoded = o.Get<Bytes>("lower", 198);
  EXPECT_EQ(decoded.GetCount(), 9u);  // 13 Base64 digits, "-" read as "+"
  EXPECT_EQ(Text(o.Get<Bytes>("a", 198)), "first");

  o.Set("n", YValue(5));
  ExpectFieldError(Raised([&] { o.Get<Bytes>("n", 198); }), 198, kBytesLabel, "Field was not of String n");
  ExpectFieldError(Raised([&] { o.Get<Bytes>("nope", 198); }), 198, kBytesLabel, "Required field missing nope");

  YObject nested = ParseObject(R"({"inner":{"data":"BinaryIndex-0"}})");
  ExpectFieldError(Raised([&] { nested.Get<YObject>("inner", 198).Get<Bytes>("data", 198); }), 198, kBytesLabel,
                   "Required field missing data data");
}

TEST(QelJsonBinary, Base64) {
  const std::string samples[] = {"", "h", "he", "hel", "hell", "hello", std::string("\0\xff\x10", 3)};
  for (const std::string& s : samples) {
    const YString text = YObject::Base64Encode(reinterpret_cast<const unsigned char*>(s.data()), s.size());
    EXPECT_EQ(text.size() % 4, 0u);
    EXPECT_EQ(Text(YObject::Base64Decode(text)), s) << text;
  }
  EXPECT_EQ(YObject::Base64Encode(reinterpret_cast<const unsigned char*>("hello"), 5), "aGVsbG8=");
  EXPECT_EQ(Text(YObject::Base64Decode("aGVs\nbG8")), "hello");
  EXPECT_EQ(Text(YObject::Base64Decode("-_-_")), Text(YObject::Base64Decode("+/+/")));
  YObject o;
  o.Set("b64", YValue("aGVsbG8="));
  EXPECT_EQ(Text(o.Get<Bytes>("b64", 198)), "hello");
}

class QelJsonLog : public testing::Test {
 protected:
  void SetUp() override {
    path_ = testing::TempDir() + "qel_json_log_" + std::to_string(::getpid()) + ".txt";
    std::remove(path_.c_str());
    log().Open(path_);
  }
  void TearDown() override {
    log().Close();
    log().EnableAll(false);
    log().EnableMessage(150, false);
    std::remove(path_.c_str());
  }
  static Qel::Log::YLog& log() { return Qel::Log::GetGlobalLogger(); }
  std::string Contents() const { return qel_test::ReadFile(path_); }
  std::string path_;
};

TEST_F(QelJsonLog, FailuresAreLoggedUnderTheCallersType) {
  YObject o;
  o.Set("n", YValue(5));
  EXPECT_THROW(o.Get<Bytes>("n", 150), YError);  // not enabled yet
  EXPECT_EQ(Contents(), "");

  log().EnableMessage(150, true);
  ExpectFieldError(Raised([&] { o.Get<Bytes>("n", 150); }), 150, kBytesLabel, "Field was not of String n");
  EXPECT_THROW(o.Get<YString>("gone", 150), YError);
  const std::string text = Contents();
  const char* stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
  std::istringstream lines(text);
  std::string line;
  std::vector<std::string> got;
  while (std::getline(lines, line)) got.push_back(line);
  ASSERT_EQ(got.size(), 4u) << text;
  EXPECT_THAT(got[0], MatchesRegex(std::string(stamp) +
                                   "\\[Qel::JSON::YObject\\] Field was not of json-type String n"));
  EXPECT_THAT(got[1], HasSubstr("[150] A JSON field is missing or of the wrong kind: Field was not of String n "
                                "(error 56) [Get<Qel::Memory::YHeapPtr<unsigned char> > libqel/Qel/JSON/YObject:"));
  EXPECT_THAT(got[2], HasSubstr("[Qel::JSON::YObject] Failed to find field gone"));
  EXPECT_THAT(got[3], HasSubstr("Required field missing gone (error 56)"));
}

TEST(QelJsonParse, RoundTripKeepsValuesExact) {
  const YString text =
      R"({"a":[1,-2,1.5,true,false,null],"big":9007199254740993,"max":18446744073709551615,)"
      R"("min":-9223372036854775808,"s":"q\"\\\n\u00e9\u20ac","o":{"e":{},"l":[]}})";
  const YObject o = ParseObject(text);
  const YString once = o.Stringify();
  EXPECT_EQ(ParseObject(once).Stringify(), once);
  EXPECT_THAT(once, HasSubstr("\"big\":9007199254740993"));
  EXPECT_THAT(once, HasSubstr("\"max\":18446744073709551615"));
  EXPECT_THAT(once, HasSubstr("\"min\":-9223372036854775808"));
  EXPECT_EQ(ParseObject(once).Get<unsigned long long>("big", 198), 9007199254740993ull);
  EXPECT_EQ(ParseObject(once).Get<YString>("s", 198), "q\"\\\n\xC3\xA9\xE2\x82\xAC");

  YObject built;
  built.Set("u", YValue(std::numeric_limits<unsigned long long>::max()));
  built.Set("i", YValue(std::numeric_limits<long long>::min()));
  built.Set("d", YValue(2.0));
  EXPECT_EQ(built.Stringify(), R"({"d":2,"i":-9223372036854775808,"u":18446744073709551615})");

  EXPECT_EQ(ParseObject(R"({"a":[1,{}],"b":{"c":"d"}})").Stringify(true),
            "{\n  \"a\": [\n    1,\n    {}\n  ],\n  \"b\": {\n    \"c\": \"d\"\n  }\n}");
}

TEST(QelJsonParse, BadTextRaises55) {
  for (const char* bad : {"", "{", "{\"a\":}", "[1,]", "nul"}) {
    YError e = Raised([&] { Qel::JSON::Parse(bad); });
    EXPECT_EQ(e.GetCcode(), 55u) << bad;
    EXPECT_EQ(e.GetLogType(), 220u) << bad;
  }
  EXPECT_EQ(Raised([] { ParseObject("[1]"); }).GetCcode(), 55u);
  EXPECT_TRUE(Qel::JSON::Parse(" [ ] ")->IsArray());
}

}  // namespace
