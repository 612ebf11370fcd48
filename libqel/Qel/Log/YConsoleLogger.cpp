#include "Qel/Log/YConsoleLogger.h"

#include <cmath>
#include <cstdio>

namespace Qel::Log {

std::string FormatSize(double bytes) {
  static const char* const kUnits[] = {"KB", "MB", "GB", "TB"};
  char buf[64];
  if (bytes < 1024.0) {
    std::snprintf(buf, sizeof buf, "%.0f B", bytes);
    return buf;
  }
  double v = bytes / 1024.0;
  size_t unit = 0;
  while (v >= 1024.0 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
    v /= 1024.0;
    ++unit;
  }
  std::snprintf(buf, sizeof buf, "%.2f %s", v, kUnits[unit]);
  return buf;
}

YConsoleLogger::YConsoleLogger(std::FILE* out) : out_(out) {}

YConsoleLogger::~YConsoleLogger() { Finish(); }

void YConsoleLogger::Put(std::string_view text) {
  if (line_.empty() && indent_ > 0) line_.append(indent_, ' ');
  if (width_ > text.size()) {
    std::string pad(width_ - text.size(), fill_);
    if (left_) {
      line_.append(text);
      line_.append(pad);
    } else {
      line_.append(pad);
      line_.append(text);
    }
  } else {
    line_.append(text);
  }
  width_ = 0;
}

YConsoleLogger& YConsoleLogger::operator<<(std::string_view text) {
  Put(text);
  return *this;
}

YConsoleLogger& YConsoleLogger::operator<<(const std::vector<YString>& list) {
  std::string joined;
  for (size_t i = 0; i < list.size(); ++i) {
    if (i) joined += ' ';
    joined += list[i];
  }
  Put(joined);
  return *this;
}

YConsoleLogger& YConsoleLogger::Number(long double value, bool integral) {
  if (sizes_) {
    Put(FormatSize(static_cast<double>(value)));
    return *this;
  }
  char buf[64];
  if (integral || (std::isfinite(value) && value == std::floor(value) && std::fabs(value) < 1e18L)) {
    if (value < 0)
      std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(value));
    else
      std::snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(value));
  } else {
    std::snprintf(buf, sizeof buf, "%.6Lg", value);
  }
  Put(buf);
  return *this;
}

YConsoleLogger& YConsoleLogger::operator<<(Width w) {
  width_ = w.width;
  return *this;
}

YConsoleLogger& YConsoleLogger::operator<<(Indent i) {
  indent_ = i.blanks;
  return *this;
}

YConsoleLogger& YConsoleLogger::operator<<(Fill f) {
  fill_ = f.fill;
  return *this;
}

void YConsoleLogger::ResetFormat() {
  width_ = 0;
  fill_ = ' ';
  left_ = false;
  sizes_ = false;
}

YConsoleLogger& YConsoleLogger::operator<<(Ctl control) {
  switch (control) {
    case Ctl::SizeNumbers: sizes_ = true; break;
    case Ctl::PlainNumbers: sizes_ = false; break;
    case Ctl::AlignRight: left_ = false; break;
    case Ctl::AlignLeft: left_ = true; break;
    case Ctl::EndLine:
    case Ctl::ReturnLine: {
      const bool overwrite = control == Ctl::ReturnLine || (!line_.empty() && line_.back() == '\r');
      if (control == Ctl::ReturnLine) line_ += '\r';
      else if (!overwrite) line_ += '\n';
      std::fwrite(line_.data(), 1, line_.size(), out_);
      if (overwrite) std::fflush(out_);
      carriage_open_ = overwrite;
      line_.clear();
      ResetFormat();
      break;
    }
  }
  return *this;
}

void YConsoleLogger::Finish() {
  if (!line_.empty()) *this << Ctl::EndLine;
  if (carriage_open_) {
    std::fputc('\n', out_);
    carriage_open_ = false;
  }
  std::fflush(out_);
}

}  // namespace Qel::Log
