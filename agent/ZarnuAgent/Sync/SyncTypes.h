// The three views of a synced path that the sync engine compares: what is on
// the local disk now, what the cloud holds now, and what both held the last
// time they were in step (the base, kept in the sync index).
//
// Paths inside the engine are relative to the root folder, "/"-separated,
// without a leading "/" ("docs/a.txt"); the root itself is never an item.
// The cloud path of a relative path is "/" + the path.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Qel/YString.h"

namespace Agent::Sync {

struct LocalItem {
  bool folder = false;
  uint64_t size = 0;
  int64_t mtimeNs = 0;
  uint64_t inode = 0;

  // True when the file on disk is the same one with the same content stamp
  // (folders: both are folders).
  bool SameAs(bool otherFolder, uint64_t otherSize, int64_t otherMtimeNs, uint64_t otherInode) const {
    if (folder != otherFolder) return false;
    return folder || (size == otherSize && mtimeNs == otherMtimeNs && inode == otherInode);
  }
};

struct CloudPart {
  Qel::YString fingerprint;
  uint32_t size = 0;
  bool operator==(const CloudPart&) const = default;
};

// A live cloud entry. Deleted entries are not kept: the path is absent.
struct RemoteItem {
  uint64_t id = 0;  // file version id (new on every write) or folder id
  bool folder = false;
  uint64_t size = 0;
  int64_t modified = 0;
  std::vector<CloudPart> parts;  // files: in order
};
using RemoteItemPtr = std::shared_ptr<const RemoteItem>;

struct BaseItem {
  bool folder = false;
  uint64_t size = 0;
  int64_t mtimeNs = 0;
  uint64_t inode = 0;
  uint64_t cloudId = 0;
};

// An upload about to create its cloud file: the local file as it was read
// (cloudId 0) and the parts it was cut into.
struct SendingItem {
  BaseItem local;
  std::vector<CloudPart> parts;
  uint64_t run = 0;  // the YSyncIndex::Run of the agent start that journalled it
};

inline Qel::YString ToCloudPath(const Qel::YString& relative) { return "/" + relative; }

// The relative path's parent ("" for top-level items).
inline Qel::YString ParentOf(const Qel::YString& relative) {
  const size_t slash = relative.rfind('/');
  return slash == Qel::YString::npos ? Qel::YString() : Qel::YString(relative.substr(0, slash));
}

// True when `path` lies strictly below the folder `folder` ("" is the root).
inline bool IsBelow(const Qel::YString& path, const Qel::YString& folder) {
  if (folder.empty()) return !path.empty();
  return path.size() > folder.size() && path.StartsWith(folder) && path[folder.size()] == '/';
}

}  // namespace Agent::Sync
