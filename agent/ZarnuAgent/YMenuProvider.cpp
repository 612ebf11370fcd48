#include "YMenuProvider.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <list>
#include <thread>

#include "AgentConstants.h"
#include "CloudSync/Overlay/ImageItem.h"
#include "CloudSync/Overlay/MenuItem.h"
#include "CloudSync/Paths.h"
#include "CloudSync/YCloudApi.h"
#include "Icons.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/JSON/YValue.h"
#include "Qel/Log/YLog.h"
#include "YCloudConnection.h"

extern char** environ;

namespace Agent {

namespace {

constexpr const char* kFile = "agent/ZarnuAgent/YMenuProvider";
constexpr unsigned int kNoMenu = 166;
constexpr unsigned int kOutsideRoot = 165;
constexpr unsigned int kNoSuchShare = 172;
constexpr unsigned int kNotAShare = 175;
constexpr const char* kPngType = "image/png";

Qel::Log::YLog& Log() { return Qel::Log::GetGlobalLogger(); }

OverlayClient::ImageItemPtr Icon(const unsigned char* bytes, size_t size) {
  auto icon = std::make_shared<OverlayClient::ImageItem>();
  icon->data.Assign(bytes, size);
  icon->mimeType = kPngType;
  icon->width = Icons::kIconSide;
  icon->height = Icons::kIconSide;
  return icon;
}

OverlayClient::MenuItemPtr Item(const char* title, const char* description, uint64_t command,
                                OverlayClient::ImageItemPtr icon) {
  auto item = std::make_shared<OverlayClient::MenuItem>();
  item->title = title;
  item->description = description;
  item->flags = kFlagShowDescription;
  item->commandId = command;
  item->avatar = std::move(icon);
  return item;
}

// The first of `programs` found on PATH, or "".
Qel::YString FindProgram(std::initializer_list<const char*> programs) {
  const char* path = std::getenv("PATH");
  if (path == nullptr) return {};
  for (const char* program : programs) {
    std::string_view rest(path);
    while (!rest.empty()) {
      const size_t colon = rest.find(':');
      const std::string folder(rest.substr(0, colon));
      const std::string candidate = folder + "/" + program;
      if (!folder.empty() && ::access(candidate.c_str(), X_OK) == 0) return program;
      if (colon == std::string_view::npos) break;
      rest.remove_prefix(colon + 1);
    }
  }
  return {};
}

bool HasDisplay() { return std::getenv("DISPLAY") != nullptr || std::getenv("WAYLAND_DISPLAY") != nullptr; }

// Runs `argv` with `input` on its standard input, on a thread of its own so
// that a desktop tool that lingers never holds up the agent.
void RunDetached(std::vector<std::string> argv, std::string input) {
  std::thread([argv = std::move(argv), input = std::move(input)]() mutable {
    int in[2];
    if (::pipe2(in, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (std::string& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    pid_t pid = -1;
    const int rc = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    if (rc == 0 && !input.empty()) {
      const ssize_t written = ::write(in[1], input.data(), input.size());
      (void)written;  // a tool that does not read gets nothing more
    }
    ::close(in[1]);
    if (rc == 0) ::waitpid(pid, nullptr, 0);
  }).detach();
}

}  // namespace

YMenuProvider::YMenuProvider(YAgentState& state) : state_(state) {}

Qel::YString YMenuProvider::RootFor(const Qel::YString& path, unsigned int code) const {
  const Qel::YString root = state_.GetRootFolder();
  if (root.empty()) QEL_RAISE(kLogOva, code, path + " (the agent is not linked to a root folder)", kFile, "RootFor");
  if (path != root && !Qel::File::IsPathWithinPath(path, root, false)) {
    QEL_RAISE(kLogOva, code, path + " is outside the root folder " + root, kFile, "RootFor");
  }
  return root;
}

Qel::JSON::YObject YMenuProvider::GetMenu(const std::vector<Qel::YString>& paths) const {
  if (paths.empty()) QEL_RAISE(kLogOva, kNoMenu, "no path given", kFile, "GetMenu");
  for (const Qel::YString& path : paths) RootFor(path, kNoMenu);
  const std::vector<OverlayClient::MenuItemPtr> items{
      Item("Copy public link", "Copies a public link to the clipboard: anyone with it can download", kCommandCopyLink,
           Icon(Icons::kCopyLink, Icons::kCopyLinkSize)),
      Item("Show in cloud", "Opens the cloud's public page in the browser", kCommandShowInCloud,
           Icon(Icons::kShowInCloud, Icons::kShowInCloudSize)),
  };
  Qel::JSON::YArray menus;
  for (const OverlayClient::MenuItemPtr& item : items) menus.push_back(std::make_shared<Qel::JSON::YValue>(item->Write()));
  Qel::JSON::YObject result;
  result.Set("menus", Qel::JSON::YValue(std::move(menus)));
  return result;
}

Qel::YString YMenuProvider::MakeLink(const std::vector<Qel::YString>& paths) const {
  if (paths.empty()) QEL_RAISE(kLogOva, kOutsideRoot, "no path given", kFile, "MakeLink");
  std::list<Qel::YString> cloudPaths;
  for (const Qel::YString& path : paths) {
    const Qel::YString root = RootFor(path, kOutsideRoot);
    cloudPaths.push_back(path == root ? Qel::YString("/") : Qel::YString(path.substr(root.size())));
  }
  state_.ReloadLink();
  const Qel::YString token = state_.GetToken();
  if (token.empty()) QEL_RAISE(kLogOva, kNotLoggedIn, "the agent has no login; run ZarnuAgent -link", kFile, "MakeLink");
  const std::unique_ptr<CloudSync::YCloudApi> api =
      ConnectToCloud(state_.GetOption("csmCloudAddress", CloudSync::GetDefaultCloudAddress()), token,
                     state_.GetPath(kConfigDbFile));
  try {
    return api->CreatePublicLink(cloudPaths).link;
  } catch (Qel::Exception::YError& e) {
    // Name the paths as the user knows them.
    Qel::YString named;
    for (const Qel::YString& path : paths) named += (named.empty() ? "" : ", ") + path;
    e.SetInfo(named + (e.GetInfo().empty() ? Qel::YString() : ": " + e.GetInfo()));
    throw;
  }
}

Qel::JSON::YObject YMenuProvider::RunCommand(const Qel::YString& path, uint64_t command) const {
  if (command != kCommandCopyLink && command != kCommandShowInCloud) {
    QEL_RAISE(kLogOva, kUnknownMethod, "ui_command " + std::to_string(command), kFile, "RunCommand");
  }
  const Qel::YString link = MakeLink({path});
  if (command == kCommandCopyLink) {
    const Qel::YString tool = HasDisplay() ? FindProgram({"wl-copy", "xclip", "xsel"}) : Qel::YString();
    if (tool == "wl-copy") RunDetached({"wl-copy"}, link);
    else if (tool == "xclip") RunDetached({"xclip", "-selection", "clipboard"}, link);
    else if (tool == "xsel") RunDetached({"xsel", "--clipboard", "--input"}, link);
    Log().Write(kLogCsm, "Public link for " + path + ": " + link +
                             (tool.empty() ? " (no clipboard tool or display here)" : " (copied with " + tool + ")"));
  } else {
    const bool open = HasDisplay() && !FindProgram({"xdg-open"}).empty();
    if (open) RunDetached({"xdg-open", link}, {});
    Log().Write(kLogCsm, "Show in cloud " + path + ": " + link + (open ? " (opened)" : " (no browser here)"));
  }
  Qel::JSON::YObject result;
  result.Set("link_url", Qel::JSON::YValue(link));
  return result;
}

void YMenuProvider::LeaveShare(const Qel::YString& sharePath) const {
  const Qel::YString root = state_.GetRootFolder();
  if (!root.empty() && sharePath == root) {
    QEL_RAISE(kLogOva, kNotAShare, sharePath + " is the account's own root folder, not a joined share", kFile,
              "LeaveShare");
  }
  QEL_RAISE(kLogOva, kNoSuchShare, sharePath + " (this agent has joined no shares)", kFile, "LeaveShare");
}

}  // namespace Agent
