#include "Env.h"

#include "ApiError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace zarnu::cloud {

void throwStorageFailure(const std::string& what, int error) {
    if (error == ENOSPC || error == EDQUOT)
        throw ApiError(ErrorCode::StorageFull, "The service's storage is full: nothing of this request was stored");
    throw std::runtime_error(what + ": " + std::strerror(error));
}

Env& Env::posix() {
    static PosixEnv env;
    return env;
}

int PosixEnv::open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }

int PosixEnv::close(int fd) { return ::close(fd); }

ssize_t PosixEnv::write(int fd, const void* data, std::size_t size) { return ::write(fd, data, size); }

ssize_t PosixEnv::pwrite(int fd, const void* data, std::size_t size, off_t offset) {
    return ::pwrite(fd, data, size, offset);
}

int PosixEnv::ftruncate(int fd, off_t size) { return ::ftruncate(fd, size); }

int PosixEnv::fsync(int fd) { return ::fsync(fd); }

int PosixEnv::fsyncDirectory(const char* path) {
    const int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -1;
    const int rc = ::fsync(fd);
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return rc;
}

int PosixEnv::rename(const char* from, const char* to) { return ::rename(from, to); }

int PosixEnv::unlink(const char* path) { return ::unlink(path); }

int PosixEnv::mkdir(const char* path, mode_t mode) { return ::mkdir(path, mode); }

int PosixEnv::fsetxattr(int fd, const char* name, const void* value, std::size_t size) {
    return ::fsetxattr(fd, name, value, size, 0);
}

}  // namespace zarnu::cloud
