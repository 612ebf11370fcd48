#include "Sync/YLocalScanner.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace Agent::Sync {

namespace {

Qel::YString TopTrashName() { return ".Trash-" + std::to_string(::getuid()); }

// Walks the folder open as `fd` (relative path `relative`); takes ownership
// of fd.
void Walk(int fd, const Qel::YString& relative, LocalScan& scan) {
  DIR* dir = ::fdopendir(fd);
  if (dir == nullptr) {
    scan.unreadable[relative] = std::strerror(errno);
    ::close(fd);
    return;
  }
  std::vector<std::pair<Qel::YString, bool>> folders;
  while (true) {
    errno = 0;
    const dirent* entry = ::readdir(dir);
    if (entry == nullptr) {
      if (errno != 0) scan.unreadable[relative] = std::strerror(errno);
      break;
    }
    const std::string_view name(entry->d_name);
    if (name == "." || name == "..") continue;
    const Qel::YString path = relative.empty() ? Qel::YString(name) : relative + "/" + Qel::YString(name);
    if (name.starts_with(kTempPrefix)) {
      scan.leftovers.push_back(path);
      continue;
    }
    if (IsIgnoredName(path)) continue;
    struct stat st;
    if (::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;  // gone meanwhile
    if (S_ISDIR(st.st_mode)) {
      scan.items[path] = LocalItem{true, 0, 0, static_cast<uint64_t>(st.st_ino)};
      folders.emplace_back(path, true);
    } else if (S_ISREG(st.st_mode)) {
      scan.items[path] = LocalItem{false, static_cast<uint64_t>(st.st_size),
                                   static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec,
                                   static_cast<uint64_t>(st.st_ino)};
    } else if (S_ISLNK(st.st_mode)) {
      ++scan.skippedLinks;
    }
  }
  for (const auto& [path, unused] : folders) {
    const Qel::YString name = path.substr(relative.empty() ? 0 : relative.size() + 1);
    const int child = ::openat(::dirfd(dir), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (child < 0) {
      scan.unreadable[path] = std::strerror(errno);
      continue;
    }
    Walk(child, path, scan);
  }
  ::closedir(dir);
}

}  // namespace

bool IsIgnoredName(const Qel::YString& relative) {
  if (relative == TopTrashName()) return true;
  const size_t slash = relative.rfind('/');
  const std::string_view name = slash == Qel::YString::npos ? std::string_view(relative)
                                                            : std::string_view(relative).substr(slash + 1);
  return name.starts_with(kTempPrefix);
}

LocalScan ScanLocalFolder(const Qel::YString& root) {
  LocalScan scan;
  const int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    scan.unreadable[""] = std::strerror(errno);
    return scan;
  }
  Walk(fd, "", scan);
  return scan;
}

}  // namespace Agent::Sync
