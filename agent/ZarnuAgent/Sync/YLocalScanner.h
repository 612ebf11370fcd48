// Agent::Sync::ScanLocalFolder: one walk of the root folder.
//
// Lists every folder and regular file below the root with its size, mtime
// and inode (lstat: symbolic links are not followed and not synced). Skips
// the engine's own temporary files and the trash folder at the top. A folder
// that cannot be read is reported in `unreadable`: what lies below it is
// unknown, and the engine must not take its absence for a delete.
#pragma once

#include <map>

#include "Sync/SyncTypes.h"

namespace Agent::Sync {

// Downloads land in a file named kTempPrefix + random text in the target's
// folder until they are complete; scans skip such names and the engine
// removes leftovers on start.
inline constexpr const char* kTempPrefix = ".zarnu-part-";

struct LocalScan {
  std::map<Qel::YString, LocalItem> items;            // relative path -> item
  std::map<Qel::YString, Qel::YString> unreadable;    // relative folder -> reason
  std::vector<Qel::YString> leftovers;                // relative paths of temporary files found
  uint64_t skippedLinks = 0;
};

// REQUIRES: `root` is an absolute path of an existing folder.
LocalScan ScanLocalFolder(const Qel::YString& root);

// True when the relative path is one the engine never syncs (its temporary
// files, the top-level trash folder).
bool IsIgnoredName(const Qel::YString& relative);

}  // namespace Agent::Sync
