#include "Qel/Log/YLog.h"

#include <cerrno>
#include <ctime>
#include <sys/time.h>

#include "Qel/Exception/YError.h"

namespace Qel::Log {

YLog::YLog() {
  for (auto& flag : enabled_) flag = false;
}

YLog::~YLog() { Close(); }

void YLog::RegisterLogType(const std::pair<YString, unsigned int>& type) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (by_name_.emplace(type.first, type.second).second) by_number_.emplace(type.second, type.first);
}

bool YLog::FindLogType(const YString& name, unsigned int& number) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = by_name_.find(name);
  if (it == by_name_.end()) return false;
  number = it->second;
  return true;
}

YString YLog::GetLogTypeName(unsigned int number) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = by_number_.find(number);
  return it == by_number_.end() ? YString(std::to_string(number)) : it->second;
}

std::vector<std::pair<YString, unsigned int>> YLog::GetLogTypes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::pair<YString, unsigned int>> out;
  for (const auto& [number, name] : by_number_) out.emplace_back(name, number);
  return out;
}

void YLog::SetEnabledMessages(const std::vector<YString>& names) {
  std::vector<unsigned int> numbers;
  for (const YString& raw : names) {
    YString name = raw;
    while (!name.empty() && name.back() == ' ') name.pop_back();
    while (!name.empty() && name.front() == ' ') name.erase(0, 1);
    if (name.empty()) continue;
    unsigned int number = 0;
    if (FindLogType(name, number)) {
      numbers.push_back(number);
      continue;
    }
    if (name.find_first_not_of("0123456789") == YString::npos && name.size() < 10) {
      numbers.push_back(static_cast<unsigned int>(std::stoul(name)));
      continue;
    }
    QEL_RAISE(15, 55, "Unknown log message type " + name, "libqel/Qel/Log/YLog", "SetEnabledMessages");
  }
  for (auto& flag : enabled_) flag = false;
  for (unsigned int n : numbers) EnableMessage(n, true);
}

void YLog::EnableMessage(unsigned int type, bool enabled) {
  if (type < kMaxLoggableType) enabled_[type] = enabled;
}

void YLog::EnableAll(bool enabled) { all_enabled_ = enabled; }

bool YLog::IsEnabled(unsigned int type) const {
  if (type >= kMaxLoggableType) return false;
  return all_enabled_.load(std::memory_order_relaxed) || enabled_[type].load(std::memory_order_relaxed);
}

void YLog::Open(const YString& path) {
  std::FILE* f = std::fopen(path.c_str(), "a");
  if (f == nullptr) QEL_RAISE_OS(15, errno, path, "libqel/Qel/Log/YLog", "Open");
  std::lock_guard<std::mutex> lock(mutex_);
  if (file_ != nullptr) std::fclose(file_);
  file_ = f;
}

void YLog::Close() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (file_ != nullptr) std::fclose(file_);
  file_ = nullptr;
}

void YLog::Write(unsigned int type, std::string_view text) {
  if (!IsEnabled(type)) return;
  Emit(GetLogTypeName(type), text);
}

void YLog::WriteWithPrefix(unsigned int type, std::string_view prefix, std::string_view text) {
  if (!IsEnabled(type)) return;
  Emit(prefix, text);
}

void YLog::Emit(std::string_view prefix, std::string_view text) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tm;
  localtime_r(&tv.tv_sec, &tm);
  char stamp[40];
  std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(tv.tv_usec / 1000));
  std::string line = std::string(stamp) + " [" + std::string(prefix) + "] " + std::string(text) + "\n";
  std::lock_guard<std::mutex> lock(mutex_);
  if (file_ != nullptr) {
    std::fwrite(line.data(), 1, line.size(), file_);
    std::fflush(file_);
  }
  if (debug_output_) std::fwrite(line.data(), 1, line.size(), stderr);
}

YLog& GetGlobalLogger() {
  static YLog* log = new YLog();  // never destroyed: threads may log during exit
  return *log;
}

}  // namespace Qel::Log
