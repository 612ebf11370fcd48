// Qel::Application::YConsoleMain: the console application, its verb modules
// and verbs, and the command-line grammar.
//
// Grammar: <program> <Module> <verb> [words] [options]. Module and verb names
// match without regard to case. An option is -name or --name; -name=value
// gives a value; an option declared with a trailing "=" also takes the next
// word as its value. "--" ends options. -help / --help prints the usage of the
// level reached (program, module or verb). Option names match exactly, or
// failing that without regard to case when only one option fits.
//
// Declarations: an option or verb specification is a comma-separated list of
// names ("debugOutput,debug", "ls,dir,list"); the first name is the key that
// values are stored under. A trailing "=" makes an option take a value. A
// positional argument whose name ends in "..." takes every remaining word.
// A verb or module declared with the hidden flag is reachable but not listed.
//
// Ownership: the application owns its modules, a module owns its verbs (both
// through std::shared_ptr); modules and verbs keep plain pointers back to
// their owners, which outlive them. Thread-safety: everything runs on the
// main thread, except the console input queue, which is guarded by its mutex.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "Qel/Application/YMain.h"
#include "Qel/Exception/YError.h"
#include "Qel/Log/YConsoleLogger.h"
#include "Qel/YString.h"

namespace Qel::Application {

using OptionMap = std::map<YString, YString>;
using ArgumentList = std::vector<YString>;

class YConsoleMain : public YMain {
 public:
  class YVerbModuleBase;
  class YVerbBase;

  YConsoleMain(int argc, char** argv);
  ~YConsoleMain() override;

  // Adds a module; modules are listed in registration order.
  void RegisterModule(std::shared_ptr<YVerbModuleBase> module);
  // Selects the module and verb from the command line and runs the verb.
  // Prints usage and returns 0 for -help. Raises YError for a missing or
  // unknown module or verb. Returns the exit code the verb stored.
  unsigned int Main();
  // Prints the program's usage (its modules).
  virtual void PrintUsage() const;
  Log::YConsoleLogger& GetLogger() const { return *logger_; }

  // The program's name as users type it (the last component of argv[0]).
  YString GetProgramName() const;
  const std::vector<std::shared_ptr<YVerbModuleBase>>& GetModules() const { return modules_; }
  // The words after the verb, as given (empty before Main selects a verb).
  const std::vector<YString>& GetVerbWords() const { return verb_words_; }

  // Console input: StartConsoleReader starts (once) a thread that reads
  // standard input into the queue, one entry per line, or with kKeys one
  // entry per key press (what a terminal in YKeyPressMode delivers; from a
  // pipe that is whatever one read returns, so callers that want lines from
  // pipes use kLines there). End of input adds one empty entry. Watch loops
  // poll HasConsoleInput or block in WaitForConsoleInput.
  enum class InputUnit { kLines, kKeys };
  void StartConsoleReader(InputUnit unit = InputUnit::kLines);
  bool HasConsoleInput() const;
  // Waits up to `milliseconds` for an entry; true when one is queued.
  bool WaitForConsoleInput(unsigned int milliseconds) const;
  // Empties the queue and wakes the threads waiting on it.
  void ClearConsoleInput() const;
  std::mutex& GetInputMutex() const { return input_->mutex; }
  std::deque<YString>& GetInputQueue() const { return input_->lines; }

 private:
  struct InputQueue {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<YString> lines;
    bool started = false;
  };

  std::unique_ptr<Log::YConsoleLogger> logger_;
  std::vector<std::shared_ptr<YVerbModuleBase>> modules_;
  std::vector<YString> verb_words_;
  std::shared_ptr<InputQueue> input_;
};

class YConsoleMain::YVerbModuleBase {
 public:
  YVerbModuleBase(YConsoleMain* app, const YString& name, const YString& description, const OptionMap& options,
                  const ArgumentList& arguments, bool hidden);
  virtual ~YVerbModuleBase();

  void RegisterVerb(std::shared_ptr<YVerbBase> verb);
  // Runs the selected verb.
  virtual void Execute(unsigned int& exitCode);
  // Called by the framework after the verb is selected and before it runs.
  virtual void Prepare(unsigned int& exitCode) {}

  const YString& GetName() const { return names_.front(); }
  const std::vector<YString>& GetNames() const { return names_; }
  const YString& GetDescription() const { return description_; }
  const OptionMap& GetOptionSpecs() const { return option_specs_; }
  bool IsHidden() const { return hidden_; }
  YConsoleMain* GetApp() const { return app_; }
  const std::vector<std::shared_ptr<YVerbBase>>& GetVerbs() const { return verbs_; }

  // Module-wide option values (filled when the selected verb parses).
  const OptionMap& GetOptions() const { return options_; }
  OptionMap& MutableOptions() const { return options_; }
  // The verb selected on the command line (null before selection).
  YVerbBase* GetCurrentVerb() const { return current_verb_; }
  void SetCurrentVerb(YVerbBase* verb) { current_verb_ = verb; }

  void PrintUsage() const;

 private:
  YConsoleMain* app_;
  std::vector<YString> names_;
  YString description_;
  OptionMap option_specs_;
  ArgumentList argument_names_;
  bool hidden_;
  std::vector<std::shared_ptr<YVerbBase>> verbs_;
  mutable OptionMap options_;
  YVerbBase* current_verb_ = nullptr;
};

class YConsoleMain::YVerbBase {
 public:
  YVerbBase(YConsoleMain* app, YVerbModuleBase* module, const YString& name, const YString& description,
            const OptionMap& options, const ArgumentList& arguments, bool hidden);
  virtual ~YVerbBase();

  virtual void Execute(unsigned int& exitCode) = 0;

  // Parses the words after the verb into the argument and option maps of the
  // verb and its module (once; later calls do nothing). Raises code 55 for an
  // unknown option or an extra word, and 46 for a value option given no value.
  void ParseParams(unsigned int& exitCode) const;

  // Lookups. GetArgument raises 47 (naming the argument) when it was not
  // given. GetMultiArgument returns the words of a "..." argument, or a
  // one-element list holding `defaultText`, or raises 47 when the default is
  // null.
  YString GetArgument(const YString& name) const;
  std::vector<YString> GetMultiArgument(const YString& name, const char* defaultText) const;
  bool HasArgument(const YString& name) const;

  const OptionMap& GetOptions() const { return options_; }
  const YString& GetName() const { return names_.front(); }
  const std::vector<YString>& GetNames() const { return names_; }
  const YString& GetDescription() const { return description_; }
  const OptionMap& GetOptionSpecs() const { return option_specs_; }
  const ArgumentList& GetArgumentNames() const { return argument_names_; }
  bool IsHidden() const { return hidden_; }
  YConsoleMain* GetApp() const { return app_; }
  YVerbModuleBase* GetModule() const { return module_; }

  void PrintUsage() const;

 private:
  YConsoleMain* app_;
  YVerbModuleBase* module_;
  std::vector<YString> names_;
  YString description_;
  OptionMap option_specs_;
  ArgumentList argument_names_;
  bool hidden_;
  mutable bool parsed_ = false;
  mutable std::map<YString, YString> arguments_;
  mutable std::map<YString, std::vector<YString>> multi_arguments_;
  mutable OptionMap options_;
};

// Option lookups over a parsed option map. GetOptionValue returns the value as
// found (possibly empty) or `defaultValue`; a default of exactly "NOTSET"
// makes the option required (code 46 naming it). GetOptionValueNumber treats
// an empty value as missing, converts with Util::StringToNumber, and a default
// of all bits set makes the option required.
YString GetOptionValue(const OptionMap& options, const YString& name, const YString& defaultValue);
unsigned int GetOptionValueNumber(const OptionMap& options, const YString& name,
                                  unsigned int defaultNumber = 0xFFFFFFFFu);
inline bool HasOption(const OptionMap& options, const YString& name) { return options.count(name) != 0; }

// Prints `error` as the one line "<program>: <summary>" on standard error.
void ReportError(const YString& program, const Exception::YError& error);

// The candidate closest to `word` by edit distance (ignoring case), or an
// empty text when none is close enough to be a likely typo.
YString SuggestName(const YString& word, const std::vector<YString>& candidates);

}  // namespace Qel::Application
