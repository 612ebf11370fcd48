#include "FaultInjectionEnv.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace zarnu::cloud::test {

namespace fs = std::filesystem;

namespace {

std::string normal(const std::string& path) {
    std::string p = fs::path(path).lexically_normal().string();
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    return p;
}

std::string folderOf(const std::string& path) { return fs::path(path).parent_path().string(); }

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot restore " + path);
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace

void FaultInjectionEnv::failNth(Op op, std::size_t n, int error) {
    std::lock_guard lock(mutex_);
    failOp_ = op;
    failAt_ = n;
    calls_ = 0;
    error_ = error;
    failed_ = false;
}

bool FaultInjectionEnv::failed() const {
    std::lock_guard lock(mutex_);
    return failed_;
}

bool FaultInjectionEnv::shouldFail(Op op) {
    if (!failOp_ || *failOp_ != op) return false;
    if (++calls_ != failAt_) return false;
    failed_ = true;
    errno = error_;
    return true;
}

FaultInjectionEnv::FileId FaultInjectionEnv::track(const std::string& path) {
    auto it = byPath_.find(path);
    if (it != byPath_.end()) return it->second;
    const FileId id = nextId_++;
    files_[id].durable = readFile(path);  // it was there before we looked: durable
    byPath_[path] = id;
    return id;
}

void FaultInjectionEnv::remember(const std::string& path, Binding binding) { pending_.try_emplace(path, binding); }

int FaultInjectionEnv::open(const char* rawPath, int flags, mode_t mode) {
    std::lock_guard lock(mutex_);
    const std::string path = normal(rawPath);
    const bool existed = exists(path);
    if (existed && (flags & O_ACCMODE) != O_RDONLY) track(path);
    const int fd = PosixEnv::open(rawPath, flags, mode);
    if (fd < 0) return fd;
    if (!existed) {
        remember(path, Binding{});
        const FileId id = nextId_++;
        files_[id].durable.clear();
        byPath_[path] = id;
    }
    if (auto it = byPath_.find(path); it != byPath_.end()) byFd_[fd] = it->second;
    return fd;
}

int FaultInjectionEnv::close(int fd) {
    std::lock_guard lock(mutex_);
    byFd_.erase(fd);
    return PosixEnv::close(fd);
}

ssize_t FaultInjectionEnv::write(int fd, const void* data, std::size_t size) {
    {
        std::lock_guard lock(mutex_);
        if (shouldFail(Op::Write)) return -1;
    }
    return PosixEnv::write(fd, data, size);
}

ssize_t FaultInjectionEnv::pwrite(int fd, const void* data, std::size_t size, off_t offset) {
    {
        std::lock_guard lock(mutex_);
        if (shouldFail(Op::Write)) return -1;
    }
    return PosixEnv::pwrite(fd, data, size, offset);
}

int FaultInjectionEnv::fsync(int fd) {
    std::lock_guard lock(mutex_);
    if (shouldFail(Op::Fsync)) return -1;
    const int rc = PosixEnv::fsync(fd);
    if (rc == 0)
        if (auto it = byFd_.find(fd); it != byFd_.end())
            files_[it->second].durable = readFile("/proc/self/fd/" + std::to_string(fd));
    return rc;
}

int FaultInjectionEnv::fsyncDirectory(const char* rawPath) {
    std::lock_guard lock(mutex_);
    if (shouldFail(Op::Fsync)) return -1;
    const int rc = PosixEnv::fsyncDirectory(rawPath);
    if (rc != 0) return rc;
    const std::string folder = normal(rawPath);
    for (auto it = pending_.begin(); it != pending_.end();)
        it = folderOf(it->first) == folder ? pending_.erase(it) : std::next(it);
    return 0;
}

int FaultInjectionEnv::rename(const char* rawFrom, const char* rawTo) {
    std::lock_guard lock(mutex_);
    if (shouldFail(Op::Rename)) return -1;
    const std::string from = normal(rawFrom), to = normal(rawTo);
    if (!exists(from)) return PosixEnv::rename(rawFrom, rawTo);
    const FileId moved = track(from);
    std::optional<FileId> replaced;
    if (exists(to)) replaced = track(to);
    const int rc = PosixEnv::rename(rawFrom, rawTo);
    if (rc != 0) return rc;
    remember(from, Binding{moved, false});
    remember(to, Binding{replaced, false});
    byPath_.erase(from);
    byPath_[to] = moved;
    return 0;
}

int FaultInjectionEnv::unlink(const char* rawPath) {
    std::lock_guard lock(mutex_);
    const std::string path = normal(rawPath);
    if (!exists(path)) return PosixEnv::unlink(rawPath);
    const FileId gone = track(path);
    const int rc = PosixEnv::unlink(rawPath);
    if (rc != 0) return rc;
    remember(path, Binding{gone, false});
    byPath_.erase(path);
    return 0;
}

int FaultInjectionEnv::mkdir(const char* rawPath, mode_t mode) {
    std::lock_guard lock(mutex_);
    const int rc = PosixEnv::mkdir(rawPath, mode);
    if (rc == 0) remember(normal(rawPath), Binding{std::nullopt, true});
    return rc;
}

void FaultInjectionEnv::crash() {
    std::lock_guard lock(mutex_);
    // Files that keep their names: back to their durable bytes.
    for (const auto& [path, id] : byPath_)
        if (!pending_.count(path) && exists(path)) writeFile(path, files_[id].durable);
    // Names not made durable: back to what they named at their folder's last sync.
    // Files first (their folders exist), then new folders, deepest first.
    std::vector<std::string> folders;
    for (const auto& [path, binding] : pending_) {
        if (binding.absentFolder) {
            folders.push_back(path);
        } else if (binding.file) {
            if (exists(folderOf(path))) writeFile(path, files_[*binding.file].durable);
        } else if (exists(path)) {
            fs::remove_all(path);
        }
    }
    std::sort(folders.begin(), folders.end(), [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    for (const std::string& folder : folders) fs::remove_all(folder);
    files_.clear();
    byFd_.clear();
    byPath_.clear();
    pending_.clear();
}

}  // namespace zarnu::cloud::test
