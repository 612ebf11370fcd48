#include "Qel/File/File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>

#include "Qel/Environment/Environment.h"
#include "Qel/Exception/YError.h"

namespace Qel::File {

namespace {

constexpr const char* kFile = "libqel/Qel/File/File";

std::mutex& MapMutex() {
  static std::mutex m;
  return m;
}

std::map<unsigned int, YString>& Maps() {
  static std::map<unsigned int, YString> maps;
  return maps;
}

YString StripTrailing(const YString& path, const YString& sep) {
  YString p = path;
  while (p.size() > sep.size() && p.EndsWith(sep)) p.resize(p.size() - sep.size());
  return p;
}

}  // namespace

void SetPathMap(unsigned int id, const YString& path) {
  std::lock_guard<std::mutex> lock(MapMutex());
  Maps()[id] = path;
}

YString GetPathMap(unsigned int id) {
  {
    std::lock_guard<std::mutex> lock(MapMutex());
    auto it = Maps().find(id);
    if (it != Maps().end()) return it->second;
  }
  if (id == 3) return RemoveFileFromPath(Environment::GetPathToSelf());
  return YString();
}

YString GetPathName(unsigned int id, const YString& file) { return AppendPaths(GetPathMap(id), file); }

YString AppendPaths(const YString& first, const YString& second, const YString& separator) {
  if (first.empty()) return second;
  if (second.empty()) return first;
  const bool a = first.EndsWith(separator);
  const bool b = second.StartsWith(separator);
  if (a && b) return first + YString(second.substr(separator.size()));
  if (a || b) return first + second;
  return first + separator + second;
}

YString GetFileFromPath(const YString& path, const YString& separator) {
  YString p = StripTrailing(path, separator);
  if (p == separator) return YString();
  size_t pos = p.rfind(separator);
  if (pos == YString::npos) return p;
  return YString(p.substr(pos + separator.size()));
}

YString RemoveFileFromPath(const YString& path, const YString& separator) {
  YString p = StripTrailing(path, separator);
  if (p == separator) return p;
  size_t pos = p.rfind(separator);
  if (pos == YString::npos) return YString();
  if (pos == 0) return separator;
  return YString(p.substr(0, pos));
}

YString ConvertToOsPathSep(const YString& path) {
  YString out = path;
  for (char& c : out) {
    if (c == '\\') c = '/';
  }
  return out;
}

bool IsPathWithinPath(const YString& path, const YString& root, bool ignoreCase) {
  YString p = StripTrailing(path, "/");
  YString r = StripTrailing(root, "/");
  if (ignoreCase) {
    p = p.ToLowerAscii();
    r = r.ToLowerAscii();
  }
  if (p == r) return true;
  if (r == "/") return p.StartsWith("/");
  return p.size() > r.size() && p.StartsWith(r) && p[r.size()] == '/';
}

void CreatePath(const YString& path, bool includeLast) {
  YString target = includeLast ? path : RemoveFileFromPath(path);
  if (target.empty()) return;
  size_t pos = 0;
  while (true) {
    pos = target.find('/', pos + 1);
    YString part = pos == YString::npos ? target : YString(target.substr(0, pos));
    if (!part.empty() && ::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
      QEL_RAISE_OS(43, errno, part, kFile, "CreatePath");
    }
    if (pos == YString::npos) break;
  }
  struct stat st;
  if (::stat(target.c_str(), &st) != 0) QEL_RAISE_OS(43, errno, target, kFile, "CreatePath");
  if (!S_ISDIR(st.st_mode)) QEL_RAISE_OS(43, ENOTDIR, target, kFile, "CreatePath");
}

bool DoesFileExist(const YString& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool GetFileInfo(const YString& path, YFileInfo& info) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return false;
  info.size = S_ISDIR(st.st_mode) ? 0 : static_cast<uint64_t>(st.st_size);
  info.attributes = S_ISDIR(st.st_mode) ? kAttributeFolder : 0;
  info.modified = static_cast<int64_t>(st.st_mtime);
  return true;
}

void PutContents(const YString& path, const YString& text, uint64_t offset, unsigned int /*flags*/) {
  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (offset == 0 ? O_TRUNC : 0);
  int fd = ::open(path.c_str(), flags, 0644);
  if (fd < 0) QEL_RAISE_OS(43, errno, path, kFile, "PutContents");
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::pwrite(fd, text.data() + done, text.size() - done, static_cast<off_t>(offset + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      ::close(fd);
      QEL_RAISE_OS(43, err, path, kFile, "PutContents");
    }
    done += static_cast<size_t>(n);
  }
  if (::close(fd) != 0) QEL_RAISE_OS(43, errno, path, kFile, "PutContents");
}

YString GetContents(const YString& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) QEL_RAISE_OS(43, errno, path, kFile, "GetContents");
  YString out;
  char buf[65536];
  while (true) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      ::close(fd);
      QEL_RAISE_OS(43, err, path, kFile, "GetContents");
    }
    if (n == 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  ::close(fd);
  return out;
}

}  // namespace Qel::File
