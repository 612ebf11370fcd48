#include "Qel/Exception/YError.h"

#include <cstring>
#include <map>
#include <mutex>

#include "Qel/Log/YLog.h"

namespace {

std::mutex& RegistryMutex() {
  static std::mutex m;
  return m;
}

std::map<unsigned int, const char*>& Registry() {
  static std::map<unsigned int, const char*> r;
  return r;
}

// Texts of the runtime's generic codes; consulted after the registry.
const char* GenericText(unsigned int code) {
  switch (code) {
    case 1: return "General failure";
    case 25: return "The path does not exist";
    case 33: return "The target already exists";
    case 46: return "A required option is missing";
    case 47: return "A required argument is missing";
    case 55: return "Invalid or unknown value";
    case 56: return "A JSON field is missing or of the wrong kind";
    case 57: return "The module library could not be loaded";
    case 58: return "The module library has no instance entry point";
    case 59: return "The module could not make or start the instance";
    case 60: return "The handle does not name a live object";
    case 65: return "Termination was requested";
    case 88: return "No session with the agent";
    case 118: return "The text is not a number";
    case 145: return "The lock is busy";
    case 150: return "The remote service refused the request";
    default: return nullptr;
  }
}

}  // namespace

int qel_err_register(const _tagQEL_CCODE_MAP* map) {
  if (map == nullptr) return 0;
  std::lock_guard<std::mutex> lock(RegistryMutex());
  int added = 0;
  for (const _tagQEL_CCODE_MAP* e = map; e->code != 0 || e->description != nullptr || e->flag != 0; ++e) {
    if (Registry().emplace(e->code, e->description).second) ++added;
  }
  return added;
}

const char* qel_err_lookup(unsigned int code) {
  std::lock_guard<std::mutex> lock(RegistryMutex());
  auto it = Registry().find(code);
  return it == Registry().end() ? nullptr : it->second;
}

namespace Qel::Exception {

YError::YError(unsigned int logType, unsigned int code, unsigned int subCode, unsigned int line, const char* file,
               const char* function)
    : log_type_(logType), code_(code), sub_code_(subCode), line_(line), file_(file), function_(function) {}

YError& YError::SetInfo(const YString& info) {
  info_ = info;
  what_.clear();
  return *this;
}

YError& YError::AppendInfo(const YString& text) {
  if (!info_.empty() && !text.empty()) info_ += ": ";
  info_ += text;
  what_.clear();
  return *this;
}

YString YError::GetDescription() const {
  if (sub_code_ == kOsErrorSubCode) return YString(std::strerror(static_cast<int>(code_)));
  if (const char* text = qel_err_lookup(code_)) return YString(text);
  if (const char* text = GenericText(code_)) return YString(text);
  return YString("Error " + std::to_string(code_));
}

YString YError::GetSummary() const {
  YString s = GetDescription();
  if (!info_.empty()) {
    s += ": ";
    s += info_;
  }
  s += " (error " + std::to_string(code_) + ")";
  return s;
}

YString YError::GetDetailedSummary() const {
  return GetSummary() + " [" + function_ + " " + file_ + ":" + std::to_string(line_) + "]";
}

int YError::GetExitCode() const {
  return (code_ >= 1 && code_ <= 255) ? static_cast<int>(code_) : 1;
}

const char* YError::what() const noexcept {
  if (what_.empty()) {
    try {
      what_ = GetSummary();
    } catch (...) {
      return "YError";
    }
  }
  return what_.c_str();
}

void Raise(YError error) {
  Log::YLog& log = Log::GetGlobalLogger();
  if (log.IsEnabled(error.GetLogType())) log.Write(error.GetLogType(), error.GetDetailedSummary());
  throw error;
}

void Raise(unsigned int logType, unsigned int code, const YString& info, unsigned int line, const char* file,
           const char* function) {
  YError e(logType, code, 0, line, file, function);
  e.SetInfo(info);
  Raise(std::move(e));
}

void RaiseOs(unsigned int logType, int err, const YString& info, unsigned int line, const char* file,
             const char* function) {
  YError e(logType, static_cast<unsigned int>(err), kOsErrorSubCode, line, file, function);
  e.SetInfo(info);
  Raise(std::move(e));
}

}  // namespace Qel::Exception
