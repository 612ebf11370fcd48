// Invariants: data_ is aligned to kAlignment and holds size_ <= capacity_
// bytes; the current answer's bytes are [answer_start_, size_). Append never
// throws (it runs inside libcurl's callback): failures set overflowed_.
#include "CloudSync/Transfer/YPartsBuffer.h"

#include <algorithm>
#include <cstring>

namespace CloudSync {

namespace {

constexpr size_t kMaxManifestBytes = 64 * 1024;
constexpr size_t kFirstCapacity = 1024 * 1024 + kMaxManifestBytes;

}  // namespace

const unsigned char* YPartsBuffer::Find(const Qel::YString& fingerprint, size_t& size) const {
  const auto it = found_.find(fingerprint);
  if (it == found_.end()) return nullptr;
  size = it->second.second;
  return data_.get() + it->second.first;
}

void YPartsBuffer::Clear() {
  size_ = 0;
  answer_start_ = 0;
  found_.clear();
  manifest_.clear();
  in_manifest_ = true;
  overflowed_ = false;
}

void YPartsBuffer::Begin() {
  answer_start_ = size_;
  manifest_.clear();
  in_manifest_ = true;
}

bool YPartsBuffer::Reserve(size_t bytes) {
  if (bytes <= capacity_) return true;
  const size_t capacity = std::max({bytes, kFirstCapacity, capacity_ * 2});
  void* block = nullptr;
  if (::posix_memalign(&block, kAlignment, capacity) != 0) return false;
  if (size_ > 0) std::memcpy(block, data_.get(), size_);
  data_.reset(static_cast<unsigned char*>(block));
  capacity_ = capacity;
  return true;
}

void YPartsBuffer::Append(const char* data, size_t size) {
  if (overflowed_) return;
  if (in_manifest_) {
    const char* end = static_cast<const char*>(std::memchr(data, '\n', size));
    const size_t line = end != nullptr ? static_cast<size_t>(end - data) : size;
    if (manifest_.size() + line > kMaxManifestBytes) {
      overflowed_ = true;
      return;
    }
    manifest_.append(data, line);
    if (end == nullptr) return;
    in_manifest_ = false;
    data += line + 1;
    size -= line + 1;
  }
  if (!Reserve(size_ + size)) {
    overflowed_ = true;
    return;
  }
  std::memcpy(data_.get() + size_, data, size);
  size_ += size;
}

std::string YPartsBuffer::AnswerText() const {
  std::string text = manifest_;
  if (!in_manifest_) {
    text += '\n';
    text.append(reinterpret_cast<const char*>(data_.get()) + answer_start_, AnswerBytes());
  }
  return text;
}

void YPartsBuffer::Record(const Qel::YString& fingerprint, size_t offset, size_t size) {
  found_[fingerprint] = {offset, size};
}

}  // namespace CloudSync
