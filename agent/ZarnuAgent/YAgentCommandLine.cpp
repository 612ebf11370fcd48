#include "YAgentCommandLine.h"

#include "Qel/Exception/YError.h"

namespace Agent {

namespace {

constexpr const char* kFile = "agent/ZarnuAgent/YAgentCommandLine";
constexpr unsigned int kLogShell = 15;
constexpr unsigned int kMissingOption = 46;
constexpr unsigned int kBadValue = 55;

}  // namespace

const std::vector<YAgentCommandLine::Switch>& YAgentCommandLine::GetSwitches() {
  static const std::vector<Switch> kSwitches = {
      {"help", false, "Print this help and exit"},
      {"listen", true, "Also accept remote overlay clients on this TCP address (HOST:PORT, usually port 8446)"},
      {"link", false, "Log in (password from standard input), store the login and root folder, and exit"},
      {"username", true, "With -link: the account to log in as"},
      {"root", true, "With -link: the local folder to keep in sync (created when missing)"},
      {"cloudAddress", true, "With -link: the cloud address (default $ZARNU_CLOUD_ADDRESS or https://localhost:8443/)"},
      {"installOverlay", false, "Install the file-manager overlay (GNOME Files, Nemo, Caja) for this user and exit"},
      {"removeOverlay", false, "Remove what -installOverlay installed for this user and exit"},
      {"installOutlookAddin", false, "Say that there is no Outlook mail client on Linux and exit 95"},
      {"removeOutlookAddin", false, "Say that there is no Outlook mail client on Linux and exit 95"},
  };
  return kSwitches;
}

Qel::YString YAgentCommandLine::Usage() {
  Qel::YString text =
      "Usage: ZarnuAgent [switches]\n"
      "Runs the Zarnu agent in the foreground for the data folder ($ZARNU_DATA, else ~/.zarnu).\n\n";
  for (const Switch& s : GetSwitches()) {
    Qel::YString name = Qel::YString("  -") + s.name + (s.takesValue ? "=VALUE" : "");
    if (name.size() < 26) name += Qel::YString(26 - name.size(), ' ');
    text += name + " " + s.description + "\n";
  }
  return text;
}

YAgentCommandLine::YAgentCommandLine(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    Qel::YString word = argv[i] ? argv[i] : "";
    if (!word.StartsWith("-")) {
      QEL_RAISE(kLogShell, kBadValue, "Unexpected word " + word + " (see ZarnuAgent -help)", kFile, "Parse");
    }
    word.erase(0, word.StartsWith("--") ? 2 : 1);
    const size_t eq = word.find('=');
    const Qel::YString name = word.substr(0, eq);
    const Switch* known = nullptr;
    for (const Switch& s : GetSwitches()) {
      if (name == s.name) known = &s;
    }
    if (!known) QEL_RAISE(kLogShell, kBadValue, "Unknown switch -" + name + " (see ZarnuAgent -help)", kFile, "Parse");
    if (known->takesValue && eq == std::string::npos) {
      QEL_RAISE(kLogShell, kMissingOption, "-" + name + " needs a value: -" + name + "=...", kFile, "Parse");
    }
    values_[name] = eq == std::string::npos ? Qel::YString() : Qel::YString(word.substr(eq + 1));
  }
}

Qel::YString YAgentCommandLine::Require(const char* name) const {
  auto it = values_.find(name);
  if (it == values_.end() || it->second.empty()) {
    QEL_RAISE(kLogShell, kMissingOption, Qel::YString("-") + name + "=...", kFile, "Require");
  }
  return it->second;
}

Qel::YString YAgentCommandLine::Get(const char* name, const Qel::YString& fallback) const {
  auto it = values_.find(name);
  return it == values_.end() ? fallback : it->second;
}

}  // namespace Agent
