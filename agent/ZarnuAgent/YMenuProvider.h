// Agent::YMenuProvider: the context menu the agent offers for a selection of
// paths in its root folder, the public links behind it, and the commands its
// items run.
//
// Items (docs/overlay-protocol.md, "Menus and links"):
//   "Copy public link" (kCommandCopyLink): makes a public link to the path
//     through the cloud and puts it on the desktop's clipboard when a
//     clipboard tool (wl-copy, xclip, xsel) and a display are there;
//   "Show in cloud" (kCommandShowInCloud): makes the link and opens it with
//     xdg-open when there is a display.
// Both answer with the link and log it, so a client without a desktop still
// gets it. Every item carries a 16x16 PNG icon as its avatar and sets
// kFlagShowDescription.
//
// Errors name the offending path: 166 for a menu outside the root folder or
// from an agent that is not linked, 165 for a link to a path outside the root
// folder, the cloud's own code (174: not in the cloud yet) otherwise; 228 for
// an unknown command; leaving a share is 175 for the root folder (the account's
// own) and 172 for any other path (this agent joins no shares).
//
// Thread-safety: every call may come from any thread; each link is made over
// a connection of its own.
#pragma once

#include <cstdint>
#include <vector>

#include "Qel/JSON/YObject.h"
#include "Qel/YString.h"
#include "YAgentState.h"

namespace Agent {

inline constexpr uint64_t kCommandCopyLink = 1;
inline constexpr uint64_t kCommandShowInCloud = 2;
inline constexpr uint64_t kFlagShowDescription = 1;  // the item's description belongs in status listings

class YMenuProvider {
 public:
  explicit YMenuProvider(YAgentState& state);

  // {"menus": [menu item, ...]} for `paths`.
  Qel::JSON::YObject GetMenu(const std::vector<Qel::YString>& paths) const;
  // A public link to all of `paths`.
  Qel::YString MakeLink(const std::vector<Qel::YString>& paths) const;
  // Runs an item's command for `path`; {"link_url": link}.
  Qel::JSON::YObject RunCommand(const Qel::YString& path, uint64_t command) const;
  // Always raises (see above).
  [[noreturn]] void LeaveShare(const Qel::YString& sharePath) const;

 private:
  // The root folder; raises `code` naming `path` when
  // the agent is not linked or `path` is outside it.
  Qel::YString RootFor(const Qel::YString& path, unsigned int code) const;

  YAgentState& state_;
};

}  // namespace Agent
