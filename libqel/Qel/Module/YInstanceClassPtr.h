// Qel::Module::YInstanceClassPtr<T>: a counted handle to a module instance of
// class T (a YInstance subclass that its library defines).
//
// AllocateInstance loads the class's library, makes and starts an instance and
// returns the handle; it raises Qel::Exception::YError (log type 198, the
// runtime's code, the library's name and reason as info) on failure or when
// the instance is not a T. operator-> raises (log type 15, code 55, function
// "operator->") when the handle is empty. Thread-safety: as YHandlePtr; the
// instance's own operations say what they allow.
#pragma once

#include "Qel/Exception/YError.h"
#include "Qel/Module/YHandlePtr.h"
#include "Qel/Module/YInstance.h"

namespace Qel::Module {

inline constexpr const char* kInstanceSource = "libqel/Qel/Module/YInstance";
inline constexpr unsigned int kLogInstanceUse = 15;
inline constexpr unsigned int kEmptyHandle = 55;

template <typename T>
class YInstanceClassPtr : public QelHandle::YHandlePtr<_tagQELINS> {
 public:
  YInstanceClassPtr() = default;
  explicit YInstanceClassPtr(QELINS handle) : YHandlePtr(handle) {}

  static YInstanceClassPtr AllocateInstance(const YString& className, const YString& instanceName,
                                            const YString& options) {
    QELINS handle = nullptr;
    const int code = qel_instance_alloc(0, className.c_str(), instanceName.c_str(), &handle, options.c_str());
    if (code != 0) {
      QEL_RAISE(kLogModule, static_cast<unsigned int>(code), className + ": " + qel_instance_last_error(),
                kInstanceSource, "AllocateInstance");
    }
    YInstanceClassPtr result(handle);
    if (result.TryGet() == nullptr) {
      QEL_RAISE(kLogModule, static_cast<unsigned int>(kModuleRefused),
                className + ": the instance is not of the class asked for", kInstanceSource, "AllocateInstance");
    }
    return result;
  }

  // The instance, or nullptr when the handle is empty or stale.
  T* TryGet() const { return Get() == nullptr ? nullptr : dynamic_cast<T*>(qel_instance_get(Get())); }

  T* operator->() const {
    T* instance = TryGet();
    if (instance == nullptr) QEL_RAISE(kLogInstanceUse, kEmptyHandle, kLabel, kInstanceSource, "operator->");
    return instance;
  }
};

}  // namespace Qel::Module
