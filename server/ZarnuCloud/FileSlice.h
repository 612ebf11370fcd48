#pragma once
// An open file descriptor that closes itself, and the first bytes of an open file as a
// piece of an answer. Move-only; no networking or storage knowledge.

#include <unistd.h>

#include <cstdint>
#include <memory>
#include <utility>

namespace zarnu::cloud {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

/// The first `size` bytes of `fd`, from offset 0. When `bytes` is set they were already
/// read, and are sent from there rather than from the file.
struct FileSlice {
    UniqueFd fd;
    std::uint64_t size = 0;
    std::shared_ptr<const unsigned char> bytes;
};

}  // namespace zarnu::cloud
