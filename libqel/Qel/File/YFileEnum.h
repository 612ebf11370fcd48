// The file enumerator: walks a folder and calls back once per entry.
#pragma once

#include <functional>

#include "Qel/File/File.h"
#include "Qel/YString.h"

namespace Qel::File {

enum class EnumResult { kContinue, kStop };

struct YFileEnumEntry {
  YString path;  // full path: folder joined with the entry's name
  YString name;
  YFileInfo info;
};

// Enumeration flag: descend into sub-folders (a folder is reported before its
// contents).
inline constexpr unsigned int kEnumRecursive = 1;

using FileEnumCallback = std::function<EnumResult(const YFileEnumEntry&)>;

}  // namespace Qel::File

// Enumerates `folder` in name order, reporting every entry whose name matches
// the regular expression `pattern` (whole-name match; ".*" for all). With
// kEnumRecursive every sub-folder is walked too (its entries are matched
// against the pattern; the walk descends into every folder, following links,
// except a folder that is already on the way down: a link to a parent is
// reported but not walked again, so link loops end). Returns 0, or
// the system's error number when the folder cannot be read, or EINVAL for a
// bad pattern. A callback that returns kStop ends the walk with 0.
int qel_file_enum(const Qel::YString& folder, const Qel::YString& pattern, unsigned int flags,
                  const Qel::File::FileEnumCallback& callback);
