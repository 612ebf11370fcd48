// zarnu-declarations: prints the command-line declarations of zarnucmd,
// ZarnuAgent and zarnu-cloud as one JSON document on standard output, for the
// build step that makes the manual pages and the bash completion
// (make_docs.py). It builds the same objects the programs build: zarnucmd's
// application with its verb modules, the agent's switch table and the
// service's command and option tables, plus the code table that exit statuses
// come from. A build tool only; it is not installed.
//
// Output (every text as declared, descriptions may hold line breaks):
//   {"version": "...",
//    "zarnucmd": {"modules": [{"names": [...], "description": "...", "options": [OPTION...],
//                              "verbs": [{"names": [...], "description": "...",
//                                         "arguments": ["local path", "cloud path"], "options": [OPTION...]}]}]},
//    "ZarnuAgent": {"switches": [{"name": "...", "takesValue": bool, "description": "..."}]},
//    "zarnu-cloud": {"commands": [{"synopsis": "...", "description": "..."}],
//                    "options": [{"name": "--data", "value": "DIR", "description": "..."}]},
//    "codes": [{"code": N, "description": "..."}]}
//   OPTION: {"names": ["w", "watch"], "takesValue": bool, "description": "..."}
// Hidden modules and verbs are left out, as -help leaves them out; a verb
// registered twice under one name is listed once.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Qel/Exception/YError.h"
#include "Qel/Foundation/YInitContext.h"
#include "Qel/Util/Util.h"
#include "YAgentCommandLine.h"
#include "YZarnuCmd.h"

namespace {

using Qel::YString;
using Qel::Application::OptionMap;
using Module = Qel::Application::YConsoleMain::YVerbModuleBase;
using Verb = Qel::Application::YConsoleMain::YVerbBase;

// Exit statuses are 0..255; a code above that leaves as status 1.
constexpr unsigned int kLastExitStatus = 255;
constexpr unsigned int kLogShell = 15;

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string QuoteList(const std::vector<YString>& items) {
  std::string out = "[";
  for (const YString& item : items) out += (out.size() > 1 ? ", " : "") + Quote(item);
  return out + "]";
}

// The option specification "w,watch" or "username=" as the framework reads it:
// comma-separated names, a trailing "=" for an option that takes a value.
std::string Options(const OptionMap& specs) {
  std::string out = "[";
  for (const auto& [spec, description] : specs) {
    const bool takesValue = spec.EndsWith("=");
    const YString names = takesValue ? YString(spec.substr(0, spec.size() - 1)) : spec;
    if (out.size() > 1) out += ", ";
    out += "{\"names\": " + QuoteList(Qel::Util::SplitString(names, ',')) +
           ", \"takesValue\": " + (takesValue ? "true" : "false") + ", \"description\": " + Quote(description) + "}";
  }
  return out + "]";
}

std::string Verbs(const Module& module) {
  std::string out = "[";
  std::vector<YString> listed;
  for (const auto& verb : module.GetVerbs()) {
    if (verb->IsHidden() || std::find(listed.begin(), listed.end(), verb->GetName()) != listed.end()) continue;
    listed.push_back(verb->GetName());
    if (out.size() > 1) out += ",";
    out += "\n      {\"names\": " + QuoteList(verb->GetNames()) + ", \"description\": " +
           Quote(verb->GetDescription()) + ", \"arguments\": " + QuoteList(verb->GetArgumentNames()) +
           ", \"options\": " + Options(verb->GetOptionSpecs()) + "}";
  }
  return out + "]";
}

std::string ZarnuCmd() {
  char name[] = "zarnucmd";
  char* argv[] = {name, nullptr};
  YZarnuCmd app(1, argv);
  std::string out = "{\"modules\": [";
  bool first = true;
  for (const auto& module : app.GetModules()) {
    if (module->IsHidden()) continue;
    out += first ? "\n    " : ",\n    ";
    first = false;
    out += "{\"names\": " + QuoteList(module->GetNames()) + ", \"description\": " +
           Quote(module->GetDescription()) + ", \"options\": " + Options(module->GetOptionSpecs()) +
           ", \"verbs\": " + Verbs(*module) + "}";
  }
  return out + "]}";
}

std::string AgentSwitches() {
  std::string out = "{\"switches\": [";
  for (const Agent::YAgentCommandLine::Switch& s : Agent::YAgentCommandLine::GetSwitches()) {
    if (out.back() == '}') out += ", ";
    out += std::string("\n    {\"name\": ") + Quote(s.name) + ", \"takesValue\": " + (s.takesValue ? "true" : "false") +
           ", \"description\": " + Quote(s.description) + "}";
  }
  return out + "]}";
}

std::string CloudCommands() {
  using zarnu::cloud::CommandLine;
  std::string out = "{\"commands\": [";
  for (const CommandLine::CommandSpec& c : CommandLine::commands()) {
    if (out.back() == '}') out += ", ";
    out += std::string("\n    {\"synopsis\": ") + Quote(c.synopsis) + ", \"description\": " + Quote(c.description) + "}";
  }
  out += "],\n  \"options\": [";
  for (const CommandLine::OptionSpec& o : CommandLine::options()) {
    if (out.back() == '}') out += ", ";
    out += std::string("\n    {\"name\": ") + Quote(o.name) + ", \"value\": " + Quote(o.value) +
           ", \"description\": " + Quote(o.description) + "}";
  }
  return out + "]}";
}

// Every exit status that has a text of its own in the code table (the
// registry is filled by zarnucmd's constructor, so ZarnuCmd() runs first).
std::string Codes() {
  std::string out = "[";
  for (unsigned int code = 1; code <= kLastExitStatus; ++code) {
    const YString text = Qel::Exception::YError(kLogShell, code, 0, 0, "", "").GetDescription();
    if (text == "Error " + std::to_string(code)) continue;
    if (out.size() > 1) out += ",";
    out += "\n    {\"code\": " + std::to_string(code) + ", \"description\": " + Quote(text) + "}";
  }
  return out + "]";
}

}  // namespace

int main() {
  Qel::Foundation::YInitContext init;
  try {
    const std::string zarnucmd = ZarnuCmd();
    std::string doc = "{\"version\": " + Quote(YZarnuCmd::kVersion) + ",\n \"zarnucmd\": " + zarnucmd +
                      ",\n \"ZarnuAgent\": " + AgentSwitches() + ",\n \"zarnu-cloud\": " + CloudCommands() +
                      ",\n \"codes\": " + Codes() + "}\n";
    std::fwrite(doc.data(), 1, doc.size(), stdout);
  } catch (const Qel::Exception::YError& e) {
    Qel::Application::ReportError("zarnu-declarations", e);
    return e.GetExitCode();
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}
