// Overlay verb "status": Reports status of a path (wild cards are supported)
//
// For every path argument (default ".*", everything at the top of the root
// share) the verb lists the matching entries of the folder with the status
// the running agent reports for each, one table per folder. A path that is
// not inside the root share names a place inside it. With "-d" the menu
// descriptions the agent marks for display follow each row; with "-w" the
// verb polls again (every "-w" milliseconds, 500 by default) and prints only
// when the result changed, until a line is entered.
#pragma once

#include <map>
#include <vector>

#include "Qel/Application/YConsoleMain.h"

namespace OverlayClient {
class YOverlayContext;
}

namespace Overlay {

class YOverlayVerbModule;

class YStatusVerb : public Qel::Application::YConsoleMain::YVerbBase {
 public:
  YStatusVerb(Qel::Application::YConsoleMain* app, YOverlayVerbModule* module);
  void Execute(unsigned int& exitCode) override;

  struct Row {
    Qel::YString name;
    Qel::YString status;
    Qel::YString progress;
    std::vector<Qel::YString> details;
    bool operator==(const Row&) const = default;
  };
  // folder -> entry path -> row; both ordered by YString comparison.
  using Results = std::map<Qel::YString, std::map<Qel::YString, Row>>;

 private:
  Results Pass(OverlayClient::YOverlayContext& context, const Qel::YString& root,
               const std::vector<Qel::YString>& paths, bool detailed);
  void Print(const Results& results, bool detailed);
  // Sleeps `periodMs`; true as soon as a line of console input has arrived.
  bool WaitForInput(unsigned int periodMs);

  YOverlayVerbModule* module_;
};

}  // namespace Overlay
