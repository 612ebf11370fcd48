#include "FolderPartStore.h"

#include "Secrets.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace zarnu::cloud {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const std::string& what, const fs::path& p) {
    throw std::runtime_error(what + " " + p.string() + ": " + std::strerror(errno));
}

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    int release() {
        int f = fd_;
        fd_ = -1;
        return f;
    }

private:
    int fd_;
};

void syncDirectory(const fs::path& dir) {
    Fd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) fail("cannot open folder", dir);
    if (::fsync(fd.get()) != 0) fail("cannot sync folder", dir);
}

void makeDirectory(const fs::path& dir) {
    if (::mkdir(dir.c_str(), 0700) == 0) {
        syncDirectory(dir.parent_path());
    } else if (errno != EEXIST) {
        fail("cannot create folder", dir);
    }
}

}  // namespace

FolderPartStore::FolderPartStore(fs::path root) : root_(std::move(root)) {
    std::error_code ec;
    fs::create_directories(root_ / "tmp", ec);
    if (ec) throw std::runtime_error("cannot create part folder " + root_.string() + ": " + ec.message());
    for (const auto& leftover : fs::directory_iterator(root_ / "tmp")) fs::remove(leftover.path(), ec);
}

fs::path FolderPartStore::pathOf(std::string_view fingerprint) const {
    return root_ / std::string(fingerprint.substr(0, 2)) / std::string(fingerprint);
}

bool FolderPartStore::contains(std::string_view fingerprint) {
    struct stat st {};
    return ::stat(pathOf(fingerprint).c_str(), &st) == 0;
}

bool FolderPartStore::put(std::string_view fingerprint, std::string_view bytes) {
    const fs::path target = pathOf(fingerprint);
    if (contains(fingerprint)) return false;
    makeDirectory(target.parent_path());

    const fs::path temp = root_ / "tmp" / (std::string(fingerprint.substr(0, 16)) + "." + Secrets::randomHex(8));
    Fd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd.get() < 0) fail("cannot create", temp);
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd.get(), bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            int saved = errno;
            ::unlink(temp.c_str());
            errno = saved;
            fail("cannot write", temp);
        }
        done += static_cast<std::size_t>(n);
    }
    if (::fsync(fd.get()) != 0) {
        ::unlink(temp.c_str());
        fail("cannot sync", temp);
    }
    ::close(fd.release());
    if (::rename(temp.c_str(), target.c_str()) != 0) {
        int saved = errno;
        ::unlink(temp.c_str());
        errno = saved;
        fail("cannot rename into", target);
    }
    syncDirectory(target.parent_path());
    return true;
}

std::optional<std::string> FolderPartStore::get(std::string_view fingerprint) {
    const fs::path p = pathOf(fingerprint);
    Fd fd(::open(p.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        if (errno == ENOENT) return std::nullopt;
        fail("cannot open", p);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) fail("cannot stat", p);
    std::string out(static_cast<std::size_t>(st.st_size), '\0');
    std::size_t done = 0;
    while (done < out.size()) {
        ssize_t n = ::read(fd.get(), out.data() + done, out.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("cannot read", p);
        }
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    out.resize(done);
    return out;
}

}  // namespace zarnu::cloud
