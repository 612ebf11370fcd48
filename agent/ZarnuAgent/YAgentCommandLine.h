// Agent::YAgentCommandLine: the agent's switches, from one table that drives
// both parsing and -help.
//
//   ZarnuAgent                          run for the data folder
//   ZarnuAgent -listen=HOST:PORT        also accept remote clients over TCP
//   ZarnuAgent -link -username=NAME -root=DIR [-cloudAddress=URL]
//   ZarnuAgent -installOverlay | -removeOverlay | -installOutlookAddin | -removeOutlookAddin
//
// A switch is "-name" or "--name"; a value is given as "-name=value". An
// unknown switch or a missing value raises code 55 naming it.
#pragma once

#include <map>
#include <vector>

#include "Qel/YString.h"

namespace Agent {

class YAgentCommandLine {
 public:
  struct Switch {
    const char* name;
    bool takesValue;
    const char* description;
  };

  // Parses argv[1..argc). Raises code 55 for an unknown switch, a switch
  // without its value, or a word that is not a switch.
  YAgentCommandLine(int argc, char** argv);

  bool Has(const char* name) const { return values_.count(name) != 0; }
  // The value of a switch; raises code 46 naming it when absent or empty.
  Qel::YString Require(const char* name) const;
  Qel::YString Get(const char* name, const Qel::YString& fallback) const;

  static const std::vector<Switch>& GetSwitches();
  static Qel::YString Usage();

 private:
  std::map<Qel::YString, Qel::YString> values_;
};

}  // namespace Agent
