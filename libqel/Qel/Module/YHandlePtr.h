// Qel::QelHandle::YHandlePtr: an owning, counted reference to a runtime handle.
//
// A YHandlePtr holds at most one reference. Copying takes another reference
// (qel_handle_addref); moving passes it on. Letting go of a reference follows
// the release rule: when qel_handle_refcount says this is the last one, the
// object is stopped and then destroyed; otherwise only the reference is
// dropped. Thread-safety: like a std::shared_ptr, distinct YHandlePtr objects
// may be used from different threads; one object is not synchronised.
#pragma once

#include <utility>

#include "Qel/Module/YInstance.h"

namespace Qel::QelHandle {

// What a handle type needs: its number and how the last holder ends it.
template <typename Tag>
struct HandleTraits;

template <>
struct HandleTraits<_tagQELINS> {
  static constexpr unsigned int kType = Module::kHandleInstance;
  static void Close(_tagQELINS* handle) {
    qel_instance_stop(handle);
    qel_instance_destroy(handle);
  }
};

template <typename Tag>
class YHandlePtr {
 public:
  using Handle = Tag*;
  static constexpr const char* kLabel = "YHandlePtr";

  YHandlePtr() = default;
  // Adopts one reference the caller already holds.
  explicit YHandlePtr(Handle handle) : handle_(handle) {}
  YHandlePtr(const YHandlePtr& other) : handle_(other.handle_) {
    if (handle_ != nullptr) qel_handle_addref(HandleTraits<Tag>::kType, handle_);
  }
  YHandlePtr(YHandlePtr&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  YHandlePtr& operator=(YHandlePtr other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;  // `other` releases what this held
  }
  ~YHandlePtr() { Reset(); }

  // Lets go of the reference by the release rule; the pointer is empty after.
  void Reset() {
    Handle handle = std::exchange(handle_, nullptr);
    if (handle == nullptr) return;
    unsigned int count = 0;
    if (qel_handle_refcount(HandleTraits<Tag>::kType, handle, &count) == 0 && count == 1) {
      HandleTraits<Tag>::Close(handle);
    } else {
      qel_handle_release(HandleTraits<Tag>::kType, handle);
    }
  }

  Handle Get() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }

 private:
  Handle handle_ = nullptr;
};

}  // namespace Qel::QelHandle
