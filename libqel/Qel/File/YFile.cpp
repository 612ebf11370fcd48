#include "Qel/File/YFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "Qel/Exception/YError.h"

namespace Qel::File {

namespace {
constexpr const char* kFile = "libqel/Qel/File/YFile";
}

YFile::YFile() = default;

YFile::~YFile() {
  if (fd_ >= 0) ::close(fd_);
}

void YFile::Open(const YString& path, unsigned int mode) {
  Close();
  int flags = O_CLOEXEC;
  if ((mode & kRead) && (mode & (kWrite | kAppend))) flags |= O_RDWR;
  else if (mode & (kWrite | kAppend)) flags |= O_WRONLY;
  else flags |= O_RDONLY;
  if (mode & kAppend) flags |= O_APPEND;
  if (mode & kTruncate) flags |= O_TRUNC;
  if (mode & kCreate) flags |= O_CREAT;
  if (mode & kCreateNew) flags |= O_CREAT | O_EXCL;
  int fd = ::open(path.c_str(), flags, 0644);
  if (fd < 0) QEL_RAISE_OS(43, errno, path, kFile, "Open");
  fd_ = fd;
  path_ = path;
  offset_ = 0;
}

void YFile::Close() {
  if (fd_ >= 0) {
    int rc = ::close(fd_);
    fd_ = -1;
    if (rc != 0 && errno != EINTR) QEL_RAISE_OS(43, errno, path_, kFile, "Close");
  }
}

uint64_t YFile::GetSize() const {
  struct stat st;
  if (::fstat(fd_, &st) != 0) QEL_RAISE_OS(43, errno, path_, kFile, "GetSize");
  return static_cast<uint64_t>(st.st_size);
}

size_t YFile::ReadEx(size_t count) {
  buffer_.Resize(count);
  size_t done = 0;
  while (done < count) {
    ssize_t n = ::pread(fd_, buffer_.Get() + done, count - done, static_cast<off_t>(offset_ + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      QEL_RAISE_OS(43, errno, path_, kFile, "ReadEx");
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  buffer_.Resize(done);
  offset_ += done;
  return done;
}

void YFile::Write(const unsigned char* data, size_t count) {
  size_t done = 0;
  while (done < count) {
    ssize_t n = ::pwrite(fd_, data + done, count - done, static_cast<off_t>(offset_ + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      QEL_RAISE_OS(43, errno, path_, kFile, "Write");
    }
    done += static_cast<size_t>(n);
  }
  offset_ += done;
}

void YFile::Sync() {
  if (::fsync(fd_) != 0) QEL_RAISE_OS(43, errno, path_, kFile, "Sync");
}

}  // namespace Qel::File
