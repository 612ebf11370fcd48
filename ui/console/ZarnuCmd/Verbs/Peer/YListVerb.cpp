#include "Verbs/Peer/YListVerb.h"

#include <boost/signals2/connection.hpp>
#include <cstdio>
#include <list>
#include <memory>
#include <vector>

#include "Qel/Application/YKeyPressMode.h"
#include "Qel/Log/YConsoleLogger.h"
#include "Verbs/Peer/YPeerVerbModule.h"

namespace Peer {

namespace {

using Qel::Log::Ctl;

constexpr unsigned int kScanPeriodMs = 1000;
constexpr size_t kPeerIndent = 2;

// Raises the console's indentation for one printout and restores it on every
// way out.
class IndentScope {
 public:
  IndentScope(Qel::Log::YConsoleLogger& out, size_t more) : out_(out), before_(out.GetIndent()) {
    out_ << Qel::Log::Indent(before_ + more);
  }
  ~IndentScope() { out_ << Qel::Log::Indent(before_); }

 private:
  Qel::Log::YConsoleLogger& out_;
  size_t before_;
};

}  // namespace

YListVerb::YListVerb(Qel::Application::YConsoleMain* app, YPeerVerbModule* module)
    : YVerbBase(app, module, "list", "Discovers zarnu peers on the network", {}, {}, false), module_(module) {}

void YListVerb::PrintPeers() {
  Qel::Log::YConsoleLogger& out = GetApp()->GetLogger();
  out << "Peer list updated: " << Ctl::EndLine;
  {
    IndentScope indent(out, kPeerIndent);
    const std::list<std::shared_ptr<CloudSync::PeerInfo>> peers = module_->GetRegistrar().GetKnownPeers();
    for (const auto& peer : peers) out << peer->GetDisplayText() << Ctl::EndLine;
  }
  out << Ctl::EndLine;
  out.Flush();
}

void YListVerb::Execute(unsigned int& exitCode) {
  ParseParams(exitCode);
  Qel::Application::YConsoleMain* app = GetApp();
  boost::signals2::scoped_connection printer =
      module_->GetRegistrar().GetPeerListChangedSignal().connect([this] { PrintPeers(); });

  // A terminal ends the scan on one key press (its mode comes back however
  // the verb ends); a pipe or a file ends it with a line.
  Qel::Application::YKeyPressMode keys;
  app->StartConsoleReader(keys.IsActive() ? Qel::Application::YConsoleMain::InputUnit::kKeys
                                          : Qel::Application::YConsoleMain::InputUnit::kLines);
  app->ClearConsoleInput();  // keys pressed before the banner do not count

  Qel::Log::YConsoleLogger& out = app->GetLogger();
  out << "Scanning for zarnu clients... (press any key to stop)" << Ctl::EndLine;
  out.Flush();

  size_t told = 0;
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(app->GetInputMutex());
      if (!app->GetInputQueue().empty()) break;
    }
    CloudSync::YPeerRegistrar& registrar = module_->GetRegistrar();
    registrar.RequestBroadcast(CloudSync::PEER_COMMAND_QUERY);
    // What limits discovery here (a port taken, no interface) goes to standard
    // error, once each, so the list on standard output stays as scripts expect.
    const std::vector<Qel::YString> problems = registrar.GetProblems();
    for (; told < problems.size(); ++told) {
      std::fprintf(stderr, "%s: peer discovery: %s\n", app->GetProgramName().c_str(), problems[told].c_str());
    }
    app->WaitForConsoleInput(kScanPeriodMs);  // a key ends the wait at once
  }
  app->ClearConsoleInput();
  printer.disconnect();
}

}  // namespace Peer
