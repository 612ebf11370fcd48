#pragma once
// The file operations the part store and the metadata store make, behind one seam, so
// that tests can fail any of them on demand or forget what was never made durable.
// Every method has the shape of the system call it stands for: it returns what the
// call returns (-1 with errno set on failure) and never throws.
//
// Env::posix() is the real thing: each method is the system call itself (one virtual
// call per operation, no copies). Other implementations must be safe to call from many
// threads at once, like the system calls.

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace zarnu::cloud {

class Env {
public:
    virtual ~Env() = default;

    /// The process-wide system-call Env; lives as long as the process.
    static Env& posix();
    /// Whether this is Env::posix() (the stores then take their usual fast paths, e.g.
    /// SQLite on its own file layer).
    bool isPosix() const { return this == &posix(); }

    virtual int open(const char* path, int flags, mode_t mode) = 0;
    virtual int close(int fd) = 0;
    virtual ssize_t write(int fd, const void* data, std::size_t size) = 0;
    virtual ssize_t pwrite(int fd, const void* data, std::size_t size, off_t offset) = 0;
    virtual int ftruncate(int fd, off_t size) = 0;
    /// Makes the file's bytes and size durable.
    virtual int fsync(int fd) = 0;
    /// Makes the names in a folder durable (its created, renamed and removed entries).
    virtual int fsyncDirectory(const char* path) = 0;
    virtual int rename(const char* from, const char* to) = 0;
    virtual int unlink(const char* path) = 0;
    virtual int mkdir(const char* path, mode_t mode) = 0;
    virtual int fsetxattr(int fd, const char* name, const void* value, std::size_t size) = 0;
};

/// The system calls themselves. Stateless, thread-safe.
class PosixEnv : public Env {
public:
    int open(const char* path, int flags, mode_t mode) override;
    int close(int fd) override;
    ssize_t write(int fd, const void* data, std::size_t size) override;
    ssize_t pwrite(int fd, const void* data, std::size_t size, off_t offset) override;
    int ftruncate(int fd, off_t size) override;
    int fsync(int fd) override;
    int fsyncDirectory(const char* path) override;
    int rename(const char* from, const char* to) override;
    int unlink(const char* path) override;
    int mkdir(const char* path, mode_t mode) override;
    int fsetxattr(int fd, const char* name, const void* value, std::size_t size) override;
};

/// Throws the error for a failed file operation: ApiError StorageFull when `error` is
/// ENOSPC or EDQUOT (the disk is full; its message names no server path), else
/// std::runtime_error "<what>: <strerror>".
[[noreturn]] void throwStorageFailure(const std::string& what, int error);

}  // namespace zarnu::cloud
