#include "Qel/Environment/Environment.h"

#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace Qel::Environment {

YString GetPathToSelf() {
  std::vector<char> buf(4096);
  ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size() - 1);
  if (n <= 0) return YString();
  return YString(buf.data(), static_cast<size_t>(n));
}

YString GetVariable(const char* name) {
  const char* v = std::getenv(name);
  return v ? YString(v) : YString();
}

}  // namespace Qel::Environment
