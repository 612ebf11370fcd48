// Qel::Log::YLog: named log message types and the switches that enable them.
//
// A log message type is a (name, number) pair. A message of type T is written
// only when T is below kMaxLoggableType and either the switch for all types or
// the switch for T is on. Lines go to the file opened with Open and, when debug
// output is on, to standard error. Thread-safety: every operation may be called
// from any thread; the enable switches are atomic flags.
#pragma once

#include <array>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "Qel/YString.h"

namespace Qel::Log {

inline constexpr unsigned int kMaxLoggableType = 500;

class YLog {
 public:
  YLog();
  ~YLog();
  YLog(const YLog&) = delete;
  YLog& operator=(const YLog&) = delete;

  // Adds a named type. A name registered again keeps its first number.
  void RegisterLogType(const std::pair<YString, unsigned int>& type);
  // Number of a registered name (exact match), or false.
  bool FindLogType(const YString& name, unsigned int& number) const;
  // The registered name of `number`, or its decimal text.
  YString GetLogTypeName(unsigned int number) const;
  // All registered types in number order.
  std::vector<std::pair<YString, unsigned int>> GetLogTypes() const;

  // Enables exactly the named types (every other per-type switch goes off).
  // A name may also be a decimal type number. REQUIRES: every name is
  // registered; otherwise raises code 55 naming it and changes nothing.
  void SetEnabledMessages(const std::vector<YString>& names);
  void EnableMessage(unsigned int type, bool enabled);
  void EnableAll(bool enabled);
  bool IsEnabled(unsigned int type) const;

  // Mirrors log lines to standard error.
  void SetDebugOutput(bool enabled) { debug_output_ = enabled; }
  bool GetDebugOutput() const { return debug_output_; }

  // Appends log lines to `path` from now on. Raises the system's error number
  // when the file cannot be opened.
  void Open(const YString& path);
  void Close();

  // Writes "<time> [<type name>] <text>" when `type` is enabled.
  void Write(unsigned int type, std::string_view text);
  // Writes "<time> [<prefix>] <text>" when `type` is enabled.
  void WriteWithPrefix(unsigned int type, std::string_view prefix, std::string_view text);

 private:
  void Emit(std::string_view prefix, std::string_view text);

  mutable std::mutex mutex_;
  std::map<YString, unsigned int> by_name_;
  std::map<unsigned int, YString> by_number_;
  std::array<std::atomic<bool>, kMaxLoggableType> enabled_{};
  std::atomic<bool> all_enabled_{false};
  std::atomic<bool> debug_output_{false};
  std::FILE* file_ = nullptr;
};

// The process-wide logger. Never destroyed before the process ends.
YLog& GetGlobalLogger();

}  // namespace Qel::Log
