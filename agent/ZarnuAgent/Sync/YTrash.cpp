#include "Sync/YTrash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

namespace Agent::Sync {

namespace {

Qel::YString HomeTrash() {
  const char* data = std::getenv("XDG_DATA_HOME");
  if (data != nullptr && *data == '/') return Qel::YString(data) + "/Trash";
  const char* home = std::getenv("HOME");
  return Qel::YString(home != nullptr ? home : "/tmp") + "/.local/share/Trash";
}

// Percent-encodes what a trashinfo "Path=" value may not hold verbatim.
Qel::YString EncodePath(const Qel::YString& path) {
  static const char* kHex = "0123456789ABCDEF";
  Qel::YString out;
  for (const char ch : path) {
    const auto c = static_cast<unsigned char>(ch);
    if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
      out += ch;
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

Qel::YString TryTrash(const Qel::YString& path, const Qel::YString& trash, int& error) {
  std::error_code ec;
  std::filesystem::create_directories(std::string(trash + "/files"), ec);
  std::filesystem::create_directories(std::string(trash + "/info"), ec);
  const Qel::YString base = std::filesystem::path(std::string(path)).filename().string();
  char stamp[32];
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  ::localtime_r(&now, &tm);
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &tm);
  for (int n = 1; n < 1000; ++n) {
    const Qel::YString name = n == 1 ? base : Qel::YString(base + "." + std::to_string(n));
    const Qel::YString info = trash + "/info/" + name + ".trashinfo";
    // The info file is made first and exclusively: it reserves the name.
    const int fd = ::open(info.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
      if (errno == EEXIST) continue;
      error = errno;
      return "cannot write " + info + ": " + std::strerror(errno);
    }
    const std::string text = "[Trash Info]\nPath=" + EncodePath(path) + "\nDeletionDate=" + stamp + "\n";
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    if (written && ::rename(path.c_str(), (trash + "/files/" + name).c_str()) == 0) return {};
    error = errno;
    ::unlink(info.c_str());
    return std::strerror(error);
  }
  error = EEXIST;
  return "too many files of that name in " + trash;
}

}  // namespace

Qel::YString MoveToTrash(const Qel::YString& absolutePath, const Qel::YString& root) {
  int error = 0;
  const Qel::YString why = TryTrash(absolutePath, HomeTrash(), error);
  if (why.empty() || error != EXDEV) return why;
  return TryTrash(absolutePath, root + "/.Trash-" + std::to_string(::getuid()), error);
}

}  // namespace Agent::Sync
