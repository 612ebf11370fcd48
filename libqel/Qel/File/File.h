// Qel::File: path maps and file helpers.
//
// Path maps give well-known folders a number (9 the agent's data folder, 11
// its crash folder, 6 the configuration folder, 3 the folder of the running
// executable). Paths are UTF-8 texts; the separator defaults to "/". Helpers
// that touch the file system raise the system's error number (sub-code 3,
// log type 43) with the path as info. Thread-safety: the path map table is
// synchronised; the rest keep no state.
#pragma once

#include <cstdint>
#include <ctime>

#include "Qel/YString.h"

namespace Qel::File {

// Path-map ids of the well-known folders.
inline constexpr unsigned int kMapExecutable = 3;  // the folder of the running executable
inline constexpr unsigned int kMapConfig = 6;      // the configuration folder
inline constexpr unsigned int kMapData = 9;        // the agent's data folder
inline constexpr unsigned int kMapCrash = 11;      // the crash-report folder

// Attribute bit of a folder in YFileInfo::attributes.
inline constexpr uint32_t kAttributeFolder = 16;

struct YFileInfo {
  uint64_t size = 0;
  uint32_t attributes = 0;  // kAttributeFolder for folders
  int64_t modified = 0;     // seconds since the epoch
  bool IsFolder() const { return (attributes & kAttributeFolder) != 0; }
};

void SetPathMap(unsigned int id, const YString& path);
// The folder mapped to `id`; map 3 defaults to the folder of the running
// executable. An unset id gives an empty text.
YString GetPathMap(unsigned int id);
// The folder mapped to `id` joined with `file`.
YString GetPathName(unsigned int id, const YString& file);

// Joins two parts with exactly one separator between them; an empty part
// yields the other.
YString AppendPaths(const YString& first, const YString& second, const YString& separator = "/");
// The last component: the text after the last separator ("/a/b" gives "b";
// "/" gives ""; a path with no separator is returned whole). A trailing
// separator is ignored ("/a/b/" gives "b").
YString GetFileFromPath(const YString& path, const YString& separator = "/");
// Everything before the last component ("/a/b" gives "/a", "/a" gives "/",
// "a" gives ""); a trailing separator is ignored.
YString RemoveFileFromPath(const YString& path, const YString& separator = "/");
// Replaces every other separator form by this system's "/".
YString ConvertToOsPathSep(const YString& path);
// True when `path` is `root` or lies below it, compared component-wise (so
// "/a/bc" is not within "/a/b"). With `ignoreCase`, ASCII letters are folded.
bool IsPathWithinPath(const YString& path, const YString& root, bool ignoreCase);

// Creates the folder `path` and its parents (with `includeLast` false only the
// parents of `path`). Existing folders are fine.
void CreatePath(const YString& path, bool includeLast);
bool DoesFileExist(const YString& path);
// Fills `info`; returns false when nothing exists at `path` (no error).
bool GetFileInfo(const YString& path, YFileInfo& info);
// Writes `text` into `path` at `offset`, creating the file; with offset 0 the
// file is truncated first. `flags` is reserved (0).
void PutContents(const YString& path, const YString& text, uint64_t offset = 0, unsigned int flags = 0);
YString GetContents(const YString& path);

}  // namespace Qel::File
