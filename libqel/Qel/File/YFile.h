// Qel::File::YFile: a file opened for reading or writing, with its own read
// buffer.
//
// Open modes are bit sets of YFile::Mode. Read, then Write, then a create
// flag: kCreateNew (34 together with kWrite) creates a new file and fails with
// EEXIST when one is there, so nothing is ever overwritten by accident.
// Failures raise the system's error number (sub-code 3, log type 43) with the
// path as info. Thread-safety: one user at a time. Closing happens on
// destruction.
#pragma once

#include <cstdint>

#include "Qel/Memory/YHeapPtr.h"
#include "Qel/YString.h"

namespace Qel::File {

class YFile {
 public:
  enum Mode : unsigned int {
    kRead = 1,
    kWrite = 2,
    kAppend = 4,
    kTruncate = 8,
    kCreate = 16,     // create when missing
    kCreateNew = 32,  // create; fail when the file exists
  };

  YFile();
  ~YFile();
  YFile(const YFile&) = delete;
  YFile& operator=(const YFile&) = delete;

  void Open(const YString& path, unsigned int mode);
  void Close();
  bool IsOpen() const { return fd_ >= 0; }
  // The open file descriptor (-1 when closed); still owned by this object.
  int GetDescriptor() const { return fd_; }
  const YString& GetPath() const { return path_; }

  uint64_t GetSize() const;
  // Reads up to `count` bytes at the current offset into the file's buffer
  // (replacing what it held) and returns how many were read; 0 at the end.
  size_t ReadEx(size_t count);
  Memory::YHeapPtr<unsigned char>& GetBuffer() { return buffer_; }
  // Offset of the next byte to read or write.
  uint64_t GetOffset() const { return offset_; }
  // Writes all `count` bytes at the current offset.
  void Write(const unsigned char* data, size_t count);
  // Flushes written data to the device.
  void Sync();

 private:
  int fd_ = -1;
  YString path_;
  uint64_t offset_ = 0;
  Memory::YHeapPtr<unsigned char> buffer_{"File buffer"};
};

}  // namespace Qel::File
