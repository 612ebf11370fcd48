// CloudSync::YPartsBuffer: where the answers to part downloads land.
//
// An answer is one manifest line and then the parts' bytes. The buffer keeps
// the manifest apart and the bytes in one block aligned to 4 KiB, so that a
// part of whole pages can be written to a file without passing through the
// page cache, and it keeps its memory from one download to the next, so that
// no fresh pages are touched per part.
//
// The bytes are unverified: whoever reads them checks each part against its
// fingerprint and size first.
//
// Thread-safety: none; one download at a time per buffer.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "CloudSync/Http/IHttpSession.h"
#include "Qel/YString.h"

namespace CloudSync {

class YPartsBuffer : public IBodySink {
 public:
  static constexpr size_t kAlignment = 4096;

  YPartsBuffer() = default;
  YPartsBuffer(const YPartsBuffer&) = delete;
  YPartsBuffer& operator=(const YPartsBuffer&) = delete;

  // The bytes received for `fingerprint` since the last Clear, or null.
  const unsigned char* Find(const Qel::YString& fingerprint, size_t& size) const;
  // Forgets what was received; keeps the memory.
  void Clear();

  // ---- filled by YCloudApi::ReceiveParts ----
  void Begin() override;
  void Append(const char* data, size_t size) override;
  // The current answer's manifest line (without its line feed) and whether
  // the line ended; the bytes after it and where they start in the block.
  std::string_view Manifest() const { return manifest_; }
  bool ManifestEnded() const { return !in_manifest_; }
  size_t AnswerStart() const { return answer_start_; }
  size_t AnswerBytes() const { return size_ - answer_start_; }
  // The current answer as text (for an error answer).
  std::string AnswerText() const;
  // Memory ran out, or the manifest line was longer than any real one.
  bool Overflowed() const { return overflowed_; }
  void Record(const Qel::YString& fingerprint, size_t offset, size_t size);

 private:
  struct Free {
    void operator()(unsigned char* p) const { std::free(p); }
  };
  bool Reserve(size_t bytes);

  std::unique_ptr<unsigned char, Free> data_;
  size_t capacity_ = 0;
  size_t size_ = 0;
  size_t answer_start_ = 0;
  std::string manifest_;
  bool in_manifest_ = true;
  bool overflowed_ = false;
  std::map<Qel::YString, std::pair<size_t, size_t>> found_;  // fingerprint: offset, size
};

}  // namespace CloudSync
