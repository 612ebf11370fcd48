// Qel::Log::YConsoleLogger: the console output stream of the application.
//
// Text and numbers are collected into the current line; a line control ends
// it. Formatting state:
//   Width(n)        field width of the next item only (then back to 0);
//   Fill(c)         fill character, kept until the line ends (default ' ');
//   Ctl::AlignRight (6) / Ctl::AlignLeft (7): alignment within the field,
//                   kept until the line ends (default: right);
//   Ctl::SizeNumbers (5): numbers are written as sizes ("512 B", "1.50 KB",
//                   "3.00 MB", powers of 1024), kept until the line ends;
//   Ctl::PlainNumbers (8): numbers are written as plain decimals (default);
//   Indent(n)       every following line starts with n blanks (sticky).
// Line controls:
//   Ctl::EndLine (1): writes the line and a line break. A line whose text ends
//                   with a carriage return gets no line break, so the next
//                   line overwrites it;
//   Ctl::ReturnLine (9): writes the line and a carriage return, so the next
//                   line overwrites it.
// Every line control restores the defaults. Floating-point numbers with no
// fraction are written as integers. Output goes to standard output (or the
// FILE given at construction). Thread-safety: one writer at a time.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "Qel/YString.h"

namespace Qel::Log {

enum class Ctl : int {
  EndLine = 1,
  SizeNumbers = 5,
  AlignRight = 6,
  AlignLeft = 7,
  PlainNumbers = 8,
  ReturnLine = 9,
};

struct Width {
  explicit Width(size_t n) : width(n) {}
  size_t width;
};

// Indentation: every line written from now on starts with this many blanks,
// until another Indent changes it (Indent(0) ends it). Not reset by line
// controls.
struct Indent {
  explicit Indent(size_t n) : blanks(n) {}
  size_t blanks;
};

struct Fill {
  explicit Fill(char c) : fill(c) {}
  char fill;
};

// The size-number format: "<n> B" below 1 KB, else two decimals and KB, MB,
// GB or TB (powers of 1024).
std::string FormatSize(double bytes);

class YConsoleLogger {
 public:
  explicit YConsoleLogger(std::FILE* out = stdout);
  ~YConsoleLogger();

  YConsoleLogger& operator<<(std::string_view text);
  YConsoleLogger& operator<<(const char* text) { return *this << std::string_view(text ? text : ""); }
  YConsoleLogger& operator<<(const std::string& text) { return *this << std::string_view(text); }
  YConsoleLogger& operator<<(char c) { return *this << std::string_view(&c, 1); }
  YConsoleLogger& operator<<(bool value) { return *this << std::string_view(value ? "true" : "false"); }
  YConsoleLogger& operator<<(int value) { return Number(static_cast<long double>(value), true); }
  YConsoleLogger& operator<<(unsigned int value) { return Number(static_cast<long double>(value), true); }
  YConsoleLogger& operator<<(long value) { return Number(static_cast<long double>(value), true); }
  YConsoleLogger& operator<<(unsigned long value) { return Number(static_cast<long double>(value), true); }
  YConsoleLogger& operator<<(long long value) { return Number(static_cast<long double>(value), true); }
  YConsoleLogger& operator<<(unsigned long long value) { return Number(static_cast<long double>(value), true); }
  YConsoleLogger& operator<<(double value) { return Number(value, false); }
  // A list of texts is written as its items separated by blanks.
  YConsoleLogger& operator<<(const std::vector<YString>& list);
  YConsoleLogger& operator<<(Ctl control);
  YConsoleLogger& operator<<(Width w);
  YConsoleLogger& operator<<(Fill f);
  YConsoleLogger& operator<<(Indent i);

  size_t GetIndent() const { return indent_; }

  // Ends an unfinished line that a carriage return left open (call at exit).
  void Finish();
  // Hands the lines written so far to the output now (a pipe buffers them
  // otherwise): for output that a loop updates while it waits.
  void Flush() { std::fflush(out_); }

 private:
  YConsoleLogger& Number(long double value, bool integral);
  void Put(std::string_view text);
  void ResetFormat();

  std::FILE* out_;
  std::string line_;
  size_t width_ = 0;
  char fill_ = ' ';
  bool left_ = false;
  bool sizes_ = false;
  bool carriage_open_ = false;
  size_t indent_ = 0;
};

}  // namespace Qel::Log
