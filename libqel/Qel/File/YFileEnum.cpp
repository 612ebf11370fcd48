#include "Qel/File/YFileEnum.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <regex>
#include <vector>

namespace {

// Identity of a folder on the way down, so that a link back to one of its
// own parents is not walked again (such links would make the walk endless).
struct FolderId {
  dev_t dev;
  ino_t ino;
  bool operator==(const FolderId&) const = default;
};

bool GetFolderId(const Qel::YString& path, FolderId& id) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  id = {st.st_dev, st.st_ino};
  return true;
}

// Returns 0 to go on, -1 when the callback asked to stop, or an errno.
int Walk(const Qel::YString& folder, const std::regex& re, unsigned int flags,
         const Qel::File::FileEnumCallback& callback, std::vector<FolderId>& ancestors) {
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
      FolderId id;
      if (!GetFolderId(entry.path, id) || std::find(ancestors.begin(), ancestors.end(), id) != ancestors.end()) {
        continue;
      }
      ancestors.push_back(id);
      int rc = Walk(entry.path, re, flags, callback, ancestors);
      ancestors.pop_back();
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
  std::vector<FolderId> ancestors;
  if (FolderId id; GetFolderId(folder, id)) ancestors.push_back(id);
  int rc = Walk(folder, re, flags, callback, ancestors);
  return rc == -1 ? 0 : rc;
}
