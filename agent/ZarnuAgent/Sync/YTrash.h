// Agent::Sync::MoveToTrash: moves a local file into the user's trash (the
// freedesktop.org layout: "files/" and "info/*.trashinfo" under
// $XDG_DATA_HOME/Trash, else ~/.local/share/Trash), so a file removed because
// it was deleted in the cloud can be restored from the file manager. When
// the home trash is on another file system than the file, the trash folder
// ".Trash-<uid>" at the top of `root` is used (the engine never syncs it).
#pragma once

#include "Qel/YString.h"

namespace Agent::Sync {

// Returns "" on success, else the reason (the file stays where it was).
Qel::YString MoveToTrash(const Qel::YString& absolutePath, const Qel::YString& root);

}  // namespace Agent::Sync
