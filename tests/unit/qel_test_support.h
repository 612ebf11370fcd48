// Helpers shared by the runtime-layer unit tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>

#include "Qel/Exception/YError.h"
#include "Qel/YString.h"

namespace Qel {
// Prints a YString as text in failure messages (not as a list of bytes).
inline void PrintTo(const YString& text, std::ostream* os) { *os << '"' << static_cast<const std::string&>(text) << '"'; }
}  // namespace Qel

namespace qel_test {

// Runs `f` and returns the YError it raised; a failure when it raised none.
template <class F>
Qel::Exception::YError Raised(F&& f) {
  try {
    f();
  } catch (const Qel::Exception::YError& e) {
    return e;
  }
  ADD_FAILURE() << "no YError was raised";
  return Qel::Exception::YError(0, 0, 0, 0, "", "");
}

// The code of the YError that `f` raises (a failure when it raises none).
template <class F>
unsigned int CodeOf(F&& f) {
  return Raised(std::forward<F>(f)).GetCcode();
}

// A fresh folder below the test temporary folder, removed with all it holds when
// this goes.
class TempFolder {
 public:
  explicit TempFolder(const std::string& what = "zarnu_test") {
    std::string pattern = testing::TempDir() + what + "_XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "cannot make a folder like " << pattern;
    path_ = pattern;
  }
  ~TempFolder() { std::filesystem::remove_all(path_); }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  const std::string& Path() const { return path_; }
  std::string Path(const std::string& relative) const { return path_ + "/" + relative; }
  // Writes `bytes` to the file `name` in the folder; returns its path.
  std::string Write(const std::string& name, const std::string& bytes) const {
    std::ofstream(Path(name), std::ios::binary) << bytes;
    return Path(name);
  }

 private:
  std::string path_;
};

// Everything in a file; empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace qel_test
