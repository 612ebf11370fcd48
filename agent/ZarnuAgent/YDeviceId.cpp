#include "YDeviceId.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <random>

#include "AgentConstants.h"
#include "Qel/File/File.h"
#include "Qel/Log/YLog.h"

namespace Agent {

namespace {

constexpr size_t kDeviceIdDigits = 32;

bool IsDeviceId(const std::string& text) {
  if (text.size() != kDeviceIdDigits) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

std::string NewDeviceId() {
  static const char kHex[] = "0123456789abcdef";
  std::random_device random;
  std::uniform_int_distribution<int> digit(0, 15);
  std::string id;
  for (size_t i = 0; i < kDeviceIdDigits; ++i) id += kHex[digit(random)];
  return id;
}

bool WriteWhole(const Qel::YString& path, const std::string& text) {
  const Qel::YString temporary = path + ".tmp";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const std::string line = text + "\n";
  const bool written = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) && ::fsync(fd) == 0;
  ::close(fd);
  return written && std::rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

Qel::YString LoadDeviceId(const Qel::YString& dataFolder) {
  const Qel::YString path = Qel::File::AppendPaths(dataFolder, kDeviceIdFile);
  std::string id;
  if (std::ifstream in(path.c_str()); in) std::getline(in, id);
  if (IsDeviceId(id)) return id;
  id = NewDeviceId();
  if (!WriteWhole(path, id)) {
    Qel::Log::GetGlobalLogger().Write(kLogExc, "Could not keep the device id in " + path + "; peers see a new one");
  }
  return id;
}

}  // namespace Agent
