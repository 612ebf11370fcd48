// Text and number conversions, YString's UTF-8 helpers and the YHeapPtr buffer.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "Qel/Exception/YError.h"
#include "Qel/Memory/YHeapPtr.h"
#include "Qel/Util/Util.h"
#include "Qel/YString.h"
#include "qel_test_support.h"

namespace {

using Qel::YString;
using qel_test::Raised;
using Qel::Exception::YError;
using Qel::Util::NumberToString;
using Qel::Util::StringToNumber;

void ExpectNotANumber(const YError& e, const char* text, const char* function) {
  EXPECT_EQ(e.GetCcode(), 118u) << text;
  EXPECT_EQ(e.GetLogType(), 15u) << text;
  EXPECT_EQ(e.GetSubCode(), 0u) << text;
  EXPECT_EQ(e.GetFunction(), function) << text;
  EXPECT_EQ(e.GetFile(), "libqel/Qel/Util/Util") << text;
  EXPECT_EQ(e.GetInfo(), text);
}

TEST(QelUtil, CommandLineNumbersTakeOnlyLowerCaseHexPrefix) {
  EXPECT_EQ(StringToNumber<unsigned int>("0x1F"), 31u);
  EXPECT_EQ(StringToNumber<unsigned int>("0X1F"), 0u);  // decimal 0, the rest ignored
  EXPECT_EQ(StringToNumber<unsigned int>("12abc"), 12u);
  EXPECT_EQ(StringToNumber<unsigned int>("  42"), 42u);
  EXPECT_EQ(StringToNumber<int>("-7"), -7);
  EXPECT_EQ(StringToNumber<unsigned long long>("18446744073709551615"), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(StringToNumber<long long>("0xffffffffff"), 0xffffffffffLL);
  for (const char* bad : {"abc", "", "0x", "0xg", "4294967296"}) {
    ExpectNotANumber(Raised([&] { StringToNumber<unsigned int>(bad); }), bad, "StringToNumber");
  }
}

TEST(QelUtil, JsonNumbersTakeEitherHexPrefixAndHexDefault) {
  EXPECT_EQ(StringToNumber<unsigned long long>("0x1F", false), 31u);
  EXPECT_EQ(StringToNumber<unsigned long long>("0X1f", false), 31u);
  EXPECT_EQ(StringToNumber<unsigned long long>("42", false), 42u);
  EXPECT_EQ(StringToNumber<unsigned long long>("42", true), 0x42u);
  EXPECT_EQ(StringToNumber<unsigned int>("ff", true), 255u);
  EXPECT_EQ(StringToNumber<unsigned int>("0XFF", true), 255u);
  ExpectNotANumber(Raised([] { StringToNumber<unsigned int>("ff", false); }), "ff", "StringToNumber");
  ExpectNotANumber(Raised([] { StringToNumber<unsigned int>("0x", true); }), "0x", "StringToNumber");
}

TEST(QelUtil, BooleansArePrefixWordsOrDigits) {
  EXPECT_TRUE(StringToNumber<bool>("True"));
  EXPECT_TRUE(StringToNumber<bool>("truex"));
  EXPECT_FALSE(StringToNumber<bool>("FALSE"));
  EXPECT_FALSE(StringToNumber<bool>("falsehood"));
  EXPECT_TRUE(StringToNumber<bool>("1"));
  EXPECT_FALSE(StringToNumber<bool>("0"));
  for (const char* bad : {"yes", "tru", "2", ""}) {
    ExpectNotANumber(Raised([&] { StringToNumber<bool>(bad); }), bad, "StringToNumber<bool>");
  }
}

TEST(QelUtil, NumberToStringIsDecimalAndReadsBack) {
  EXPECT_EQ(NumberToString(0u), "0");
  EXPECT_EQ(NumberToString(-42), "-42");
  EXPECT_EQ(NumberToString(1.5), "1.5");
  const unsigned long long big = std::numeric_limits<uint64_t>::max();
  EXPECT_EQ(NumberToString(big), "18446744073709551615");
  EXPECT_EQ(StringToNumber<unsigned long long>(NumberToString(big)), big);
  EXPECT_EQ(StringToNumber<long>(NumberToString(std::numeric_limits<long>::min())),
            std::numeric_limits<long>::min());
}

TEST(QelUtil, SplitTrimAndQuote) {
  using Qel::Util::SplitString;
  EXPECT_TRUE(SplitString("", ',').empty());
  EXPECT_EQ(SplitString("a,,b,", ','), (std::vector<YString>{"a", "", "b", ""}));
  EXPECT_EQ(Qel::Util::Trim(" \t a b\r\n"), "a b");
  EXPECT_EQ(Qel::Util::Trim(" \n"), "");
  EXPECT_EQ(Qel::Util::QuotifyEx("x", "'"), "'x'");
  EXPECT_EQ(Qel::Util::ParseTypeName(typeid(YString)), "YString");
  EXPECT_EQ(Qel::Util::ParseTypeName(typeid(unsigned long long)), "unsigned long long");
}

TEST(QelUtil, YStringUtf8) {
  EXPECT_EQ(YString("h\xC3\xA9llo \xE2\x82\xAC").CharLength(), 7u);
  EXPECT_TRUE(YString("\xF0\x9F\x98\x80 \xE2\x82\xAC").IsValidUtf8());
  EXPECT_FALSE(YString("\xC0\xAF").IsValidUtf8());          // overlong "/"
  EXPECT_FALSE(YString("\xED\xA0\x80").IsValidUtf8());      // surrogate
  EXPECT_FALSE(YString("\xE2\x82").IsValidUtf8());          // cut short
  EXPECT_FALSE(YString("\xF4\x90\x80\x80").IsValidUtf8());  // above U+10FFFF
  EXPECT_EQ(YString::Utf8CharSize(0xF0), 4u);
  EXPECT_EQ(YString::Utf8CharSize(0x80), 1u);
  EXPECT_EQ(YString("MiXed-\xC3\x89").ToLowerAscii(), "mixed-\xC3\x89");
  EXPECT_TRUE(YString("Cloud").EqualsIgnoreCaseAscii("cLOUD"));
  EXPECT_FALSE(YString("Cloud").EqualsIgnoreCaseAscii("Clouds"));
}

TEST(QelHeapPtr, DuplicateGrowAndBounds) {
  using Bytes = Qel::Memory::YHeapPtr<unsigned char>;
  const unsigned char data[] = {1, 2, 3, 4, 5};
  Bytes a("Part data", data, sizeof data);
  Bytes b = a.Duplicate();
  b.At(0) = 9;
  EXPECT_EQ(a.At(0), 1);
  EXPECT_STREQ(b.GetTag(), "Part data");

  a.Append(data, 5);
  a.Append(data, 5);
  ASSERT_EQ(a.GetCount(), 15u);
  EXPECT_EQ(a.At(14), 5);
  a.Resize(3);
  a.Resize(4);  // keeps the first three
  EXPECT_EQ(a.At(2), 3);

  a.RemoveLeadingData(2);
  ASSERT_EQ(a.GetCount(), 2u);
  EXPECT_EQ(a.At(0), 3);
  a.RemoveLeadingData(2);
  EXPECT_TRUE(a.IsEmpty());

  YError e = Raised([&] { b.At(5); });
  EXPECT_EQ(e.GetCcode(), 55u);
  EXPECT_EQ(e.GetLogType(), 43u);
  EXPECT_NE(e.GetInfo().find("Part data"), YString::npos);
  EXPECT_NE(e.GetInfo().find("offset 5"), YString::npos);
  EXPECT_NO_THROW(b.ValidateOffset(1, 4));
  EXPECT_NO_THROW(b.RawOffset(5));  // the end itself, for an empty range
  EXPECT_THROW(b.ValidateOffset(2, 4), YError);
  EXPECT_THROW(b.ValidateOffset(static_cast<size_t>(-1), 2), YError);  // no wrap-around
  EXPECT_THROW(b.RemoveLeadingData(6), YError);
  EXPECT_EQ(b.GetCount(), 5u);

  Bytes moved = std::move(b);
  EXPECT_EQ(moved.GetCount(), 5u);
  EXPECT_TRUE(b.IsEmpty());  // NOLINT(bugprone-use-after-move): a moved-from buffer is empty
  EXPECT_THROW(b.At(0), YError);
}

}  // namespace
