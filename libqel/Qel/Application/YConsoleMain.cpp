#include "Qel/Application/YConsoleMain.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <thread>

#include "Qel/File/File.h"
#include "Qel/Util/Util.h"

namespace Qel::Application {

namespace {

constexpr const char* kFile = "libqel/Qel/Application/YConsoleMain";
using Log::Ctl;

// Names of a specification: "ls,dir,list" gives ls, dir, list; a trailing
// "=" is not part of any name.
std::vector<YString> SpecNames(const YString& spec) {
  YString s = spec;
  if (s.EndsWith("=")) s.pop_back();
  std::vector<YString> names = Util::SplitString(s, ',');
  if (names.empty()) names.push_back(YString());
  return names;
}

bool SpecTakesValue(const YString& spec) { return spec.EndsWith("="); }

bool IsHelpWord(const YString& w) { return w == "-help" || w == "--help"; }

bool MatchesName(const std::vector<YString>& names, const YString& word) {
  return std::any_of(names.begin(), names.end(), [&](const YString& n) { return n.EqualsIgnoreCaseAscii(word); });
}

size_t EditDistance(const YString& a, const YString& b) {
  const YString x = a.ToLowerAscii(), y = b.ToLowerAscii();
  std::vector<size_t> prev(y.size() + 1), cur(y.size() + 1);
  for (size_t j = 0; j <= y.size(); ++j) prev[j] = j;
  for (size_t i = 1; i <= x.size(); ++i) {
    cur[0] = i;
    for (size_t j = 1; j <= y.size(); ++j) {
      cur[j] = std::min({prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (x[i - 1] == y[j - 1] ? 0 : 1)});
    }
    std::swap(prev, cur);
  }
  return prev[y.size()];
}

YString DidYouMean(const YString& word, const std::vector<YString>& candidates, const char* prefix) {
  YString best = SuggestName(word, candidates);
  return best.empty() ? YString() : YString(" (did you mean '" + std::string(prefix) + best + "'?)");
}

// "-username=<value>", "-debugOutput, -debug".
YString OptionDisplay(const YString& spec) {
  YString out;
  for (const YString& n : SpecNames(spec)) {
    if (!out.empty()) out += ", ";
    out += "-" + n;
  }
  if (SpecTakesValue(spec)) out += "=<value>";
  return out;
}

YString ArgumentDisplay(const YString& name) {
  if (name.EndsWith("...")) return "<" + YString(name.substr(0, name.size() - 3)) + ">...";
  return "<" + name + ">";
}

// Writes "  <left padded to 24> <description>", continuing a multi-line
// description under its first line.
void Row(Log::YConsoleLogger& out, const YString& left, const YString& description) {
  std::vector<YString> lines = Util::SplitString(description, '\n');
  if (lines.empty()) lines.push_back(YString());
  YString head = "  " + left;
  if (head.size() < 26) head += YString(26 - head.size(), ' ');
  else head += "  ";
  out << head << Util::Trim(lines[0]) << Ctl::EndLine;
  for (size_t i = 1; i < lines.size(); ++i) out << YString(head.size(), ' ') << Util::Trim(lines[i]) << Ctl::EndLine;
}

void OptionRows(Log::YConsoleLogger& out, const OptionMap& specs) {
  for (const auto& [spec, help] : specs) Row(out, OptionDisplay(spec), help);
}

YString JoinNames(const std::vector<YString>& names) {
  YString out;
  for (const YString& n : names) {
    if (!out.empty()) out += ", ";
    out += n;
  }
  return out;
}

}  // namespace

YString SuggestName(const YString& word, const std::vector<YString>& candidates) {
  YString best;
  size_t best_distance = static_cast<size_t>(-1);
  for (const YString& c : candidates) {
    size_t d = EditDistance(word, c);
    if (d < best_distance) {
      best_distance = d;
      best = c;
    }
  }
  const size_t limit = std::max<size_t>(1, word.size() / 3);
  return best_distance <= limit ? best : YString();
}

void ReportError(const YString& program, const Exception::YError& error) {
  std::string line = program + ": " + error.GetSummary() + "\n";
  std::fflush(stdout);
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

// ---------------------------------------------------------------- YConsoleMain

YConsoleMain::YConsoleMain(int argc, char** argv)
    : YMain(argc, argv), logger_(std::make_unique<Log::YConsoleLogger>()), input_(std::make_shared<InputQueue>()) {}

YConsoleMain::~YConsoleMain() { logger_->Finish(); }

void YConsoleMain::RegisterModule(std::shared_ptr<YVerbModuleBase> module) { modules_.push_back(std::move(module)); }

YString YConsoleMain::GetProgramName() const {
  if (GetArgC() < 1 || GetArgV()[0] == nullptr) return "zarnucmd";
  YString name = File::GetFileFromPath(GetArgV()[0]);
  return name.empty() ? YString("zarnucmd") : name;
}

void YConsoleMain::PrintUsage() const {
  Log::YConsoleLogger& out = GetLogger();
  const YString prog = GetProgramName();
  out << "Usage: " << prog << " <Module> <verb> [arguments] [options]" << Ctl::EndLine;
  out << "       " << prog << " <Module> [<verb>] -help" << Ctl::EndLine;
  out << "       " << prog << " -version" << Ctl::EndLine;
  out << Ctl::EndLine << "Modules:" << Ctl::EndLine;
  for (const auto& m : modules_) {
    if (!m->IsHidden()) Row(out, m->GetName(), m->GetDescription());
  }
  out << Ctl::EndLine << "Options are written -name or --name, with a value as -name=value; '--' ends options."
      << Ctl::EndLine;
  out << "Module and verb names match without regard to case." << Ctl::EndLine;
}

unsigned int YConsoleMain::Main() {
  std::vector<YString> words;
  for (int i = 1; i < GetFilledArgC(); ++i) words.emplace_back(GetArgV()[i] ? GetArgV()[i] : "");

  if (words.empty()) {
    PrintUsage();
    QEL_RAISE(15, 47, "module; see '" + GetProgramName() + " -help'", kFile, "Main");
  }
  if (IsHelpWord(words[0])) {
    PrintUsage();
    return 0;
  }

  std::vector<YString> module_names;
  YVerbModuleBase* module = nullptr;
  for (const auto& m : modules_) {
    if (!m->IsHidden()) module_names.push_back(m->GetName());  // hidden names are never suggested
    if (!module && MatchesName(m->GetNames(), words[0])) module = m.get();
  }
  if (!module) {
    const char* what = words[0].StartsWith("-") ? "Unknown option '" : "Unknown module '";
    QEL_RAISE(15, 55,
              what + words[0] + "'" + DidYouMean(words[0], module_names, "") + "; see '" + GetProgramName() +
                  " -help'",
              kFile, "Main");
  }

  const YString module_help = "'" + GetProgramName() + " " + module->GetName() + " -help'";
  if (words.size() < 2) {
    module->PrintUsage();
    QEL_RAISE(15, 47, "verb; see " + module_help, kFile, "Main");
  }
  if (IsHelpWord(words[1])) {
    module->PrintUsage();
    return 0;
  }

  std::vector<YString> verb_names;
  YVerbBase* verb = nullptr;
  for (const auto& v : module->GetVerbs()) {
    if (!v->IsHidden()) verb_names.insert(verb_names.end(), v->GetNames().begin(), v->GetNames().end());
    if (!verb && MatchesName(v->GetNames(), words[1])) verb = v.get();
  }
  if (!verb) {
    QEL_RAISE(15, 55,
              "Unknown verb '" + words[1] + "' for module " + module->GetName() +
                  DidYouMean(words[1], verb_names, "") + "; see " + module_help,
              kFile, "Main");
  }

  verb_words_.assign(words.begin() + 2, words.end());
  for (const YString& w : verb_words_) {
    if (w == "--") break;
    if (IsHelpWord(w)) {
      verb->PrintUsage();
      return 0;
    }
  }

  unsigned int exit_code = 0;
  module->SetCurrentVerb(verb);
  module->Prepare(exit_code);
  module->Execute(exit_code);
  return exit_code;
}

void YConsoleMain::StartConsoleReader(InputUnit unit) {
  std::lock_guard<std::mutex> lock(input_->mutex);
  if (input_->started) return;
  input_->started = true;
  std::thread([queue = input_, unit] {
    auto push = [&queue](YString entry) {
      std::lock_guard<std::mutex> l(queue->mutex);
      queue->lines.push_back(std::move(entry));
      queue->changed.notify_all();
    };
    if (unit == InputUnit::kKeys) {
      char keys[64];
      ssize_t got = 0;
      while ((got = ::read(STDIN_FILENO, keys, sizeof(keys))) > 0 || (got < 0 && errno == EINTR)) {
        if (got > 0) push(YString(keys, static_cast<size_t>(got)));
      }
    } else {
      std::string line;
      while (std::getline(std::cin, line)) push(YString(line));
    }
    // End of input counts as an entry too, so a watch loop started with a
    // closed standard input still ends when asked.
    push(YString());
  }).detach();
}

bool YConsoleMain::HasConsoleInput() const {
  std::lock_guard<std::mutex> lock(input_->mutex);
  return !input_->lines.empty();
}

bool YConsoleMain::WaitForConsoleInput(unsigned int milliseconds) const {
  std::unique_lock<std::mutex> lock(input_->mutex);
  return input_->changed.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                  [this] { return !input_->lines.empty(); });
}

void YConsoleMain::ClearConsoleInput() const {
  std::lock_guard<std::mutex> lock(input_->mutex);
  input_->lines.clear();
  input_->changed.notify_all();
}

// ------------------------------------------------------------ YVerbModuleBase

YConsoleMain::YVerbModuleBase::YVerbModuleBase(YConsoleMain* app, const YString& name, const YString& description,
                                               const OptionMap& options, const ArgumentList& arguments, bool hidden)
    : app_(app),
      names_(SpecNames(name)),
      description_(description),
      option_specs_(options),
      argument_names_(arguments),
      hidden_(hidden) {}

YConsoleMain::YVerbModuleBase::~YVerbModuleBase() = default;

void YConsoleMain::YVerbModuleBase::RegisterVerb(std::shared_ptr<YVerbBase> verb) { verbs_.push_back(std::move(verb)); }

void YConsoleMain::YVerbModuleBase::Execute(unsigned int& exitCode) {
  if (current_verb_ == nullptr) QEL_RAISE(15, 47, "verb", kFile, "Execute");
  current_verb_->Execute(exitCode);
}

void YConsoleMain::YVerbModuleBase::PrintUsage() const {
  Log::YConsoleLogger& out = app_->GetLogger();
  const YString prog = app_->GetProgramName();
  out << "Usage: " << prog << " " << GetName() << " <verb> [arguments] [options]" << Ctl::EndLine;
  out << Ctl::EndLine;
  for (const YString& line : Util::SplitString(description_, '\n')) out << Util::Trim(line) << Ctl::EndLine;
  out << Ctl::EndLine << "Verbs:" << Ctl::EndLine;
  std::vector<YString> listed;
  for (const auto& v : verbs_) {
    if (v->IsHidden() || std::find(listed.begin(), listed.end(), v->GetName()) != listed.end()) continue;
    listed.push_back(v->GetName());
    Row(out, JoinNames(v->GetNames()), v->GetDescription());
  }
  if (!option_specs_.empty()) {
    out << Ctl::EndLine << "Options of every " << GetName() << " verb:" << Ctl::EndLine;
    OptionRows(out, option_specs_);
  }
  out << Ctl::EndLine << "Run '" << prog << " " << GetName() << " <verb> -help' for a verb's arguments and options."
      << Ctl::EndLine;
}

// ------------------------------------------------------------------ YVerbBase

YConsoleMain::YVerbBase::YVerbBase(YConsoleMain* app, YVerbModuleBase* module, const YString& name,
                                   const YString& description, const OptionMap& options,
                                   const ArgumentList& arguments, bool hidden)
    : app_(app),
      module_(module),
      names_(SpecNames(name)),
      description_(description),
      option_specs_(options),
      argument_names_(arguments),
      hidden_(hidden) {}

YConsoleMain::YVerbBase::~YVerbBase() = default;

void YConsoleMain::YVerbBase::PrintUsage() const {
  Log::YConsoleLogger& out = app_->GetLogger();
  const YString prog = app_->GetProgramName();
  YString line = "Usage: " + prog + " " + module_->GetName() + " " + GetName();
  for (const YString& a : argument_names_) line += " " + ArgumentDisplay(a);
  if (!option_specs_.empty() || !module_->GetOptionSpecs().empty()) line += " [options]";
  out << line << Ctl::EndLine << Ctl::EndLine;
  for (const YString& l : Util::SplitString(description_, '\n')) out << Util::Trim(l) << Ctl::EndLine;
  if (names_.size() > 1) out << "Also known as: " << JoinNames(names_) << Ctl::EndLine;
  if (!option_specs_.empty()) {
    out << Ctl::EndLine << "Options:" << Ctl::EndLine;
    OptionRows(out, option_specs_);
  }
  if (!module_->GetOptionSpecs().empty()) {
    out << Ctl::EndLine << "Options of every " << module_->GetName() << " verb:" << Ctl::EndLine;
    OptionRows(out, module_->GetOptionSpecs());
  }
}

void YConsoleMain::YVerbBase::ParseParams(unsigned int& /*exitCode*/) const {
  if (parsed_) return;
  parsed_ = true;
  const std::vector<YString>& words = app_->GetVerbWords();
  const YString usage = "; see '" + app_->GetProgramName() + " " + module_->GetName() + " " + GetName() + " -help'";

  struct Candidate {
    YString spec;
    bool of_verb;
  };
  std::vector<Candidate> candidates;
  for (const auto& [spec, help] : option_specs_) candidates.push_back({spec, true});
  for (const auto& [spec, help] : module_->GetOptionSpecs()) candidates.push_back({spec, false});

  bool end_of_options = false;
  size_t next_argument = 0;
  for (size_t i = 0; i < words.size(); ++i) {
    const YString& w = words[i];
    if (!end_of_options && w == "--") {
      end_of_options = true;
      continue;
    }
    const bool looks_like_option = !end_of_options && w.size() > 1 && w[0] == '-' && !(w[1] >= '0' && w[1] <= '9');
    if (looks_like_option) {
      YString body(w.substr(w.StartsWith("--") ? 2 : 1));
      YString name = body, value;
      bool has_value = false;
      if (size_t eq = body.find('='); eq != YString::npos) {
        name = YString(body.substr(0, eq));
        value = YString(body.substr(eq + 1));
        has_value = true;
      }
      const Candidate* match = nullptr;
      for (const Candidate& c : candidates) {
        for (const YString& n : SpecNames(c.spec)) {
          if (n == name && !match) match = &c;
        }
      }
      if (!match) {  // a unique match without regard to case
        int found = 0;
        for (const Candidate& c : candidates) {
          for (const YString& n : SpecNames(c.spec)) {
            if (n.EqualsIgnoreCaseAscii(name)) {
              if (match != &c) ++found;
              match = &c;
            }
          }
        }
        if (found != 1) match = nullptr;
      }
      if (!match) {
        std::vector<YString> all;
        for (const Candidate& c : candidates) {
          for (const YString& n : SpecNames(c.spec)) all.push_back(n);
        }
        QEL_RAISE(15, 55, "Unknown option '" + w + "'" + DidYouMean(name, all, "-") + usage, kFile, "ParseParams");
      }
      const YString key = SpecNames(match->spec).front();
      if (SpecTakesValue(match->spec) && !has_value) {
        if (i + 1 >= words.size()) QEL_RAISE(15, 46, "-" + key + " needs a value" + usage, kFile, "ParseParams");
        value = words[++i];
      }
      (match->of_verb ? options_ : module_->MutableOptions())[key] = value;
      continue;
    }
    if (next_argument >= argument_names_.size()) {
      QEL_RAISE(15, 55, "Unexpected argument '" + w + "'" + usage, kFile, "ParseParams");
    }
    const YString& arg = argument_names_[next_argument];
    if (arg.EndsWith("...")) {
      multi_arguments_[arg].push_back(w);
    } else {
      arguments_[arg] = w;
      ++next_argument;
    }
  }
}

YString YConsoleMain::YVerbBase::GetArgument(const YString& name) const {
  auto it = arguments_.find(name);
  if (it == arguments_.end()) QEL_RAISE(15, 47, name, kFile, "GetArgument");
  return it->second;
}

bool YConsoleMain::YVerbBase::HasArgument(const YString& name) const {
  return arguments_.count(name) != 0 || multi_arguments_.count(name) != 0;
}

std::vector<YString> YConsoleMain::YVerbBase::GetMultiArgument(const YString& name, const char* defaultText) const {
  auto it = multi_arguments_.find(name);
  if (it != multi_arguments_.end() && !it->second.empty()) return it->second;
  if (defaultText == nullptr) QEL_RAISE(15, 47, name, kFile, "GetMultiArgument");
  return {YString(defaultText)};
}

// -------------------------------------------------------------------- lookups

YString GetOptionValue(const OptionMap& options, const YString& name, const YString& defaultValue) {
  auto it = options.find(name);
  if (it != options.end()) return it->second;
  if (defaultValue == "NOTSET") QEL_RAISE(15, 46, name, kFile, "GetOptionValue");
  return defaultValue;
}

unsigned int GetOptionValueNumber(const OptionMap& options, const YString& name, unsigned int defaultNumber) {
  auto it = options.find(name);
  if (it == options.end() || it->second.empty()) {
    if (defaultNumber == 0xFFFFFFFFu) QEL_RAISE(15, 46, name, kFile, "GetOptionValueNumber");
    return defaultNumber;
  }
  return Util::StringToNumber<unsigned int>(it->second);
}

}  // namespace Qel::Application
