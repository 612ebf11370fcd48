#pragma once
// What the service's unit tests share: a temporary folder that goes with everything in
// it, and reproducible random bytes.

#include <filesystem>
#include <random>
#include <string>

namespace zarnu::cloud::test {

/// A fresh folder under the system's temporary folder, removed with its contents.
struct TempDir {
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("zarnu-cloud-test-" + std::to_string(std::random_device{}()));
    TempDir() { std::filesystem::create_directories(path); }
    ~TempDir() { std::filesystem::remove_all(path); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
};

/// `size` bytes drawn from `seed`: the same bytes for the same seed.
inline std::string bytesOf(std::size_t size, unsigned seed) {
    std::mt19937 gen(seed);
    std::string out(size, '\0');
    for (char& c : out) c = static_cast<char>(gen());
    return out;
}

}  // namespace zarnu::cloud::test
