// Errors and the code registry, the agent's code and log-type tables, the log
// enable rule and log file, and the console output stream.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CloudSync/Codes.h"
#include "Qel/Exception/YError.h"
#include "Qel/Log/YConsoleLogger.h"
#include "Qel/Log/YLog.h"
#include "qel_test_support.h"

namespace {

using Qel::YString;
using qel_test::Raised;
using Qel::Exception::YError;
using Qel::Log::Ctl;
using Qel::Log::Fill;
using Qel::Log::Width;
using testing::HasSubstr;

YError Make(unsigned int code, const char* info, unsigned int subCode = 0) {
  YError e(15, code, subCode, 12, "some/file", "Function");
  e.SetInfo(info);
  return e;
}

TEST(QelError, SummaryDescriptionAndExitCode) {
  EXPECT_EQ(Make(47, "").GetSummary(), "A required argument is missing (error 47)");
  EXPECT_EQ(Make(9999, "x").GetSummary(), "Error 9999: x (error 9999)");
  for (unsigned int code : {1u, 25u, 33u, 46u, 47u, 55u, 56u, 65u, 88u, 118u, 145u, 150u}) {
    EXPECT_THAT(Make(code, "").GetDescription(), testing::Not(testing::StartsWith("Error "))) << code;
  }
  EXPECT_EQ(Make(47, "").GetExitCode(), 47);
  EXPECT_EQ(Make(255, "").GetExitCode(), 255);
  EXPECT_EQ(Make(256, "").GetExitCode(), 1);
  EXPECT_EQ(Make(0, "").GetExitCode(), 1);
  EXPECT_EQ(Make(100000, "").GetExitCode(), 1);

  YError e = Make(55, "a");
  e.AppendInfo("b").AppendInfo("");
  EXPECT_EQ(e.GetInfo(), "a: b");
  EXPECT_STREQ(e.what(), "Invalid or unknown value: a: b (error 55)");
  e.SetInfo("c");
  EXPECT_STREQ(e.what(), "Invalid or unknown value: c (error 55)");  // not a stale text
  EXPECT_EQ(e.GetDetailedSummary(), "Invalid or unknown value: c (error 55) [Function some/file:12]");
}

TEST(QelError, OperatingSystemCodesUseTheSystemText) {
  CloudSync::RegisterErrorCodes();
  YError e = Raised([] { QEL_RAISE_OS(43, ENOENT, "/no/such", "lib/file", "Open"); });
  EXPECT_EQ(e.GetSubCode(), Qel::Exception::kOsErrorSubCode);
  EXPECT_EQ(e.GetCcode(), static_cast<unsigned int>(ENOENT));
  EXPECT_EQ(e.GetSummary(), std::string(std::strerror(ENOENT)) + ": /no/such (error " + std::to_string(ENOENT) + ")");
  EXPECT_EQ(e.GetExitCode(), ENOENT);
  // A registered code number is still read as the system's when marked so.
  EXPECT_EQ(Make(161, "", Qel::Exception::kOsErrorSubCode).GetDescription(), std::strerror(161));
  EXPECT_EQ(Make(161, "").GetDescription(), "Failed to parse cloud response");

  e = Raised([] { QEL_RAISE(15, 47, "x", "lib/file", "Fn"); });
  EXPECT_EQ(e.GetLine(), static_cast<unsigned int>(__LINE__ - 1));
  EXPECT_EQ(e.GetFile(), "lib/file");
  EXPECT_EQ(e.GetFunction(), "Fn");
}

TEST(QelErrorRegistry, FirstRegistrationWins) {
  static const _tagQEL_CCODE_MAP kTable[] = {
      {9001, "first text", -1}, {9002, "other", -1}, {9001, "second text", 0}, {0, nullptr, 0}};
  static const _tagQEL_CCODE_MAP kLater[] = {{9002, "later", -1}, {9003, "new", -1}, {0, nullptr, 0}};
  EXPECT_EQ(qel_err_register(kTable), 2);
  EXPECT_STREQ(qel_err_lookup(9001), "first text");
  EXPECT_EQ(qel_err_register(kTable), 0);
  EXPECT_EQ(qel_err_register(kLater), 1);
  EXPECT_STREQ(qel_err_lookup(9002), "other");
  EXPECT_EQ(Make(9001, "i").GetSummary(), "first text: i (error 9001)");
  EXPECT_EQ(qel_err_lookup(9004), nullptr);
  EXPECT_EQ(qel_err_register(nullptr), 0);
}

TEST(QelLog, EnableRule) {
  Qel::Log::YLog log;
  EXPECT_FALSE(log.IsEnabled(15));
  log.EnableMessage(15, true);
  EXPECT_TRUE(log.IsEnabled(15));
  EXPECT_FALSE(log.IsEnabled(16));
  log.EnableMessage(500, true);
  log.EnableMessage(4000, true);
  EXPECT_FALSE(log.IsEnabled(500));
  EXPECT_FALSE(log.IsEnabled(4000));
  log.EnableAll(true);
  EXPECT_TRUE(log.IsEnabled(0));
  EXPECT_TRUE(log.IsEnabled(499));
  EXPECT_FALSE(log.IsEnabled(500));
  log.EnableAll(false);
  EXPECT_TRUE(log.IsEnabled(15));
  EXPECT_FALSE(log.IsEnabled(499));
  log.EnableMessage(15, false);
  EXPECT_FALSE(log.IsEnabled(15));
}

TEST(QelLog, EnabledMessagesByName) {
  CloudSync::RegisterLogTypes();
  Qel::Log::YLog& log = Qel::Log::GetGlobalLogger();
  log.EnableMessage(200, true);
  log.SetEnabledMessages({"CSM_PEER", " CSM_OVA "});
  for (unsigned int t = 0; t < 500; ++t) EXPECT_EQ(log.IsEnabled(t), t == 203 || t == 207) << t;

  YError e = Raised([&] { log.SetEnabledMessages({"CSM", "CSM_NOPE"}); });
  EXPECT_EQ(e.GetCcode(), 55u);
  EXPECT_THAT(e.GetInfo(), HasSubstr("CSM_NOPE"));
  EXPECT_TRUE(log.IsEnabled(203));  // unchanged
  EXPECT_FALSE(log.IsEnabled(200));

  log.SetEnabledMessages({"15"});
  EXPECT_TRUE(log.IsEnabled(15));
  EXPECT_FALSE(log.IsEnabled(203));
  log.SetEnabledMessages({});
  EXPECT_FALSE(log.IsEnabled(15));
}

TEST(QelLog, FileLines) {
  Qel::Log::YLog log;
  log.RegisterLogType({"T_ONE", 31});
  log.RegisterLogType({"T_ONE", 32});  // the first number stays
  log.RegisterLogType({"T_TWO", 32});
  const std::string path = testing::TempDir() + "qel_log_" + std::to_string(::getpid()) + ".txt";
  std::remove(path.c_str());
  log.Open(path);
  log.Write(31, "not enabled");
  log.EnableMessage(31, true);
  log.EnableMessage(32, true);
  log.Write(31, "one");
  log.WriteWithPrefix(32, "Prefix", "two");
  log.Close();
  log.Write(31, "after close");
  const std::string written = qel_test::ReadFile(path);
  std::remove(path.c_str());
  EXPECT_THAT(written, testing::MatchesRegex("[0-9-]{10} [0-9:.]{12} \\[T_ONE\\] one\n"
                                             "[0-9-]{10} [0-9:.]{12} \\[Prefix\\] two\n"));
  EXPECT_EQ(Raised([&] { log.Open("/no/such/folder/log.txt"); }).GetSubCode(), Qel::Exception::kOsErrorSubCode);
}

// Console stream over an in-memory FILE.
class QelConsole : public testing::Test {
 protected:
  void SetUp() override { file_ = open_memstream(&buf_, &len_); }
  void TearDown() override {
    std::fclose(file_);
    std::free(buf_);
  }
  std::string Out() {
    std::fflush(file_);
    return std::string(buf_, len_);
  }
  char* buf_ = nullptr;
  size_t len_ = 0;
  std::FILE* file_ = nullptr;
};

TEST_F(QelConsole, WidthFillAndAlignment) {
  Qel::Log::YConsoleLogger out(file_);
  out << Width(5) << "ab" << "cd" << Ctl::EndLine;
  out << Ctl::AlignLeft << Fill('.') << Width(6) << "ab" << "|" << Width(4) << 7 << "|" << Ctl::EndLine;
  out << Width(4) << "x" << Ctl::EndLine;  // defaults are back after a line
  out << Width(1) << "long" << Ctl::AlignLeft << Ctl::AlignRight << Width(3) << 'c' << Ctl::EndLine;
  out << Qel::Log::Indent(2) << "i" << Ctl::EndLine << Ctl::EndLine << Width(3) << "j" << Ctl::EndLine;
  out << Qel::Log::Indent(0) << "k" << Ctl::EndLine;  // indentation stays until changed
  EXPECT_EQ(Out(), "   abcd\nab....|7...|\n   x\nlong  c\n  i\n\n    j\nk\n");
}

TEST_F(QelConsole, Numbers) {
  Qel::Log::YConsoleLogger out(file_);
  out << 3.0 << " " << 2.5 << " " << -4.0 << " " << -12 << " " << 18446744073709551615ull << " " << 1e20 << " "
      << true << Ctl::EndLine;
  out << Ctl::SizeNumbers << 512 << "|" << 1536 << "|" << 3u * 1024 * 1024 << "|" << Width(9) << 1024.0 << "|"
      << Ctl::PlainNumbers << 1536 << Ctl::EndLine;
  out << 1536 << " " << std::vector<YString>{"a", "b", "c"} << Ctl::EndLine;  // sizes end with the line
  EXPECT_EQ(Out(), "3 2.5 -4 -12 18446744073709551615 1e+20 true\n512 B|1.50 KB|3.00 MB|  1.00 KB|1536\n1536 a b c\n");
  EXPECT_EQ(Qel::Log::FormatSize(0), "0 B");
  EXPECT_EQ(Qel::Log::FormatSize(1023), "1023 B");
  EXPECT_EQ(Qel::Log::FormatSize(5.0 * 1024 * 1024 * 1024), "5.00 GB");
  EXPECT_EQ(Qel::Log::FormatSize(2048.0 * 1024 * 1024 * 1024 * 1024), "2048.00 TB");
}

TEST_F(QelConsole, LinesThatOverwrite) {
  Qel::Log::YConsoleLogger out(file_);
  out << "10%" << Ctl::ReturnLine;
  EXPECT_EQ(Out(), "10%\r");  // flushed at once
  out << "50%\r" << Ctl::EndLine;
  EXPECT_EQ(Out(), "10%\r50%\r");
  out << "done" << Ctl::EndLine << "" << Ctl::ReturnLine;
  out << "unfinished";
  out.Finish();
  EXPECT_EQ(Out(), "10%\r50%\rdone\n\runfinished\n");
  out << "9%" << Ctl::ReturnLine;
  out.Finish();  // an open carriage gets its line break
  EXPECT_EQ(Out(), "10%\r50%\rdone\n\runfinished\n9%\r\n");
}

}  // namespace
