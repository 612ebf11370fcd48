// Qel::Memory::YHeapPtr<T>: an owned, bounds-checked buffer of T.
//
// The buffer owns its storage exclusively (move-only; Duplicate() makes an
// independent copy). It carries an allocation tag that names what it holds
// ("Part data"). Growing keeps the existing elements; new elements are left
// uninitialised for trivial T. Bounds-checked accessors raise code 55 (log
// type 43) naming the tag and the offending offset. Thread-safety: none; one
// owner at a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "Qel/Exception/YError.h"
#include "Qel/YString.h"

namespace Qel::Memory {

template <class T>
class YHeapPtr {
  static_assert(std::is_trivially_copyable_v<T>, "YHeapPtr holds plain data");

 public:
  YHeapPtr() = default;
  explicit YHeapPtr(const char* tag, size_t count = 0) : tag_(tag) { Resize(count); }
  YHeapPtr(const char* tag, const T* data, size_t count) : tag_(tag) { Assign(data, count); }

  YHeapPtr(YHeapPtr&& other) noexcept { *this = std::move(other); }
  YHeapPtr& operator=(YHeapPtr&& other) noexcept {
    if (this != &other) {
      data_ = std::move(other.data_);
      count_ = std::exchange(other.count_, 0);
      capacity_ = std::exchange(other.capacity_, 0);
      tag_ = other.tag_;
    }
    return *this;
  }
  YHeapPtr(const YHeapPtr&) = delete;
  YHeapPtr& operator=(const YHeapPtr&) = delete;

  // An independent copy of the elements, with the same tag.
  YHeapPtr Duplicate() const { return YHeapPtr(tag_, data_.get(), count_); }

  const char* GetTag() const { return tag_; }
  size_t GetCount() const { return count_; }
  size_t GetSize() const { return count_ * sizeof(T); }
  bool IsEmpty() const { return count_ == 0; }
  T* Get() { return data_.get(); }
  const T* Get() const { return data_.get(); }

  // Sets the element count, keeping the first min(old, new) elements. Resize(0)
  // releases the storage.
  void Resize(size_t count) {
    if (count == 0) {
      data_.reset();
      count_ = capacity_ = 0;
      return;
    }
    Reserve(count);
    count_ = count;
  }

  void Reserve(size_t capacity) {
    if (capacity <= capacity_) return;
    std::unique_ptr<T[]> grown(new T[capacity]);
    if (count_) std::memcpy(grown.get(), data_.get(), count_ * sizeof(T));
    data_ = std::move(grown);
    capacity_ = capacity;
  }

  void Assign(const T* data, size_t count) {
    Resize(count);
    if (count) std::memcpy(data_.get(), data, count * sizeof(T));
  }

  void Append(const T* data, size_t count) {
    if (count == 0) return;
    if (count_ + count > capacity_) Reserve(std::max(count_ + count, capacity_ * 2));
    std::memcpy(data_.get() + count_, data, count * sizeof(T));
    count_ += count;
  }

  // Raises unless [offset, offset + count) lies inside the buffer.
  void ValidateOffset(size_t offset, size_t count = 1) const {
    if (offset > count_ || count > count_ - offset) {
      Exception::YError e(43, 55, 0, __LINE__, "libqel/Qel/Memory/YHeapPtr", "ValidateOffset");
      e.SetInfo(YString(std::string(tag_) + " offset " + std::to_string(offset) + " count " +
                        std::to_string(count) + " outside " + std::to_string(count_)));
      Exception::Raise(std::move(e));
    }
  }

  T& At(size_t index) {
    ValidateOffset(index);
    return data_[index];
  }
  const T& At(size_t index) const {
    ValidateOffset(index);
    return data_[index];
  }

  // Pointer to the element at `offset`, checked to lie within the buffer (the
  // end position itself is allowed for an empty range).
  T* RawOffset(size_t offset) {
    ValidateOffset(offset, 0);
    return data_.get() + offset;
  }
  const T* RawOffset(size_t offset) const {
    ValidateOffset(offset, 0);
    return data_.get() + offset;
  }

  // Drops the first `count` elements, moving the rest to the front.
  void RemoveLeadingData(size_t count) {
    ValidateOffset(0, count);
    if (count < count_) std::memmove(data_.get(), data_.get() + count, (count_ - count) * sizeof(T));
    count_ -= count;
  }

 private:
  std::unique_ptr<T[]> data_;
  size_t count_ = 0;
  size_t capacity_ = 0;
  const char* tag_ = "YHeapPtr";
};

}  // namespace Qel::Memory
