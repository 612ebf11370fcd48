#include "Qel/File/YFileEnum.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <regex>
#include <vector>

namespace {

// Returns 0 to go on, -1 when the callback asked to stop, or an errno.
int Walk(const Qel::YString& folder, const std::regex& re, unsigned int flags,
         const Qel::File::FileEnumCallback& callback) {
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return errno;
  std::vector<Qel::YString> names;
  while (dirent* e = ::readdir(dir)) {
    Qel::YString name(e->d_name);
    if (name == "." || name == "..") continue;
    names.push_back(name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  for (const Qel::YString& name : names) {
    Qel::File::YFileEnumEntry entry;
    entry.name = name;
    entry.path = Qel::File::AppendPaths(folder, name);
    if (!Qel::File::GetFileInfo(entry.path, entry.info)) continue;  // vanished meanwhile
    if (std::regex_match(name, re)) {
      if (callback(entry) == Qel::File::EnumResult::kStop) return -1;
    }
    if ((flags & Qel::File::kEnumRecursive) && entry.info.IsFolder()) {
      int rc = Walk(entry.path, re, flags, callback);
      if (rc != 0) return rc;
    }
  }
  return 0;
}

}  // namespace

int qel_file_enum(const Qel::YString& folder, const Qel::YString& pattern, unsigned int flags,
                  const Qel::File::FileEnumCallback& callback) {
  std::regex re;
  try {
    re = std::regex(pattern, std::regex::ECMAScript);
  } catch (const std::regex_error&) {
    return EINVAL;
  }
  int rc = Walk(folder, re, flags, callback);
  return rc == -1 ? 0 : rc;
}
