// Qel::Exception::YError: the one exception type of the system, and the
// process-wide table of error-code descriptions.
//
// An error carries the log message type it is reported under, a numeric code
// (the system's code table, or an operating-system error number when the
// sub-code is kOsErrorSubCode), the source location and function label of the
// raiser, and an information text. Thread-safety: a YError is a value; the code
// registry is internally synchronised.
#pragma once

#include <exception>
#include <string>

#include "Qel/YString.h"

// One row of an error-code table. Tables are arrays terminated by an all-zero
// entry; the registry keeps the pointers, so tables must have static storage.
struct _tagQEL_CCODE_MAP {
  unsigned int code;
  const char* description;
  int flag;
};

// Registers every row of `map` (up to the all-zero terminator). The first
// registration of a code wins; later rows for the same code are ignored.
// Returns the number of codes newly registered.
int qel_err_register(const _tagQEL_CCODE_MAP* map);

// The registered description of `code`, or nullptr when none is registered.
const char* qel_err_lookup(unsigned int code);

namespace Qel::Exception {

// Sub-code that marks the code as an operating-system error number (errno).
inline constexpr unsigned int kOsErrorSubCode = 3;

class YError : public std::exception {
 public:
  YError(unsigned int logType, unsigned int code, unsigned int subCode, unsigned int line,
         const char* file, const char* function);
  ~YError() override = default;

  YError& SetInfo(const YString& info);
  YError& AppendInfo(const YString& text);

  unsigned int GetLogType() const { return log_type_; }
  unsigned int GetCcode() const { return code_; }
  unsigned int GetSubCode() const { return sub_code_; }
  unsigned int GetLine() const { return line_; }
  const YString& GetFile() const { return file_; }
  const YString& GetFunction() const { return function_; }
  const YString& GetInfo() const { return info_; }

  // The fixed English text of the code: the system's text for an
  // operating-system error, else the registered text, else the runtime's
  // generic text, else "Error <code>".
  YString GetDescription() const;

  // "<description>: <info> (error <code>)", without ": <info>" when the info
  // is empty. This is the text users see.
  YString GetSummary() const;

  // The summary followed by " [<function> <file>:<line>]", for log files.
  YString GetDetailedSummary() const;

  // The process exit status this error stands for: the code when it lies in
  // 1..255, else 1.
  virtual int GetExitCode() const;

  const char* what() const noexcept override;

 private:
  unsigned int log_type_;
  unsigned int code_;
  unsigned int sub_code_;
  unsigned int line_;
  YString file_;
  YString function_;
  YString info_;
  mutable std::string what_;
};

// Logs the error's summary under its log type (when that type is enabled on
// the global logger) and throws it.
[[noreturn]] void Raise(YError error);

// Builds an error with sub-code 0 and the given info, logs and throws it.
[[noreturn]] void Raise(unsigned int logType, unsigned int code, const YString& info, unsigned int line,
                        const char* file, const char* function);

// Builds an error for the operating-system error number `err` (sub-code 3).
[[noreturn]] void RaiseOs(unsigned int logType, int err, const YString& info, unsigned int line,
                          const char* file, const char* function);

}  // namespace Qel::Exception

// Raises an error from the current line: QEL_RAISE(15, 55, "text", "file/label", "Function").
#define QEL_RAISE(logType, code, info, file, function) \
  ::Qel::Exception::Raise((logType), (code), (info), __LINE__, (file), (function))
#define QEL_RAISE_OS(logType, err, info, file, function) \
  ::Qel::Exception::RaiseOs((logType), (err), (info), __LINE__, (file), (function))
