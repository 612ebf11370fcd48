// Module instances: objects of a class that lives in a library loaded at run
// time, reached through counted handles.
//
// qel_instance_alloc(0, "CloudSync", name, &handle, options) opens
// "libCloudSync.so" (first from the folder that holds libQel.so, then by the
// loader's search path), calls its entry point kModuleEntryPoint to make an
// instance of the class, starts it with `options` and hands back a handle
// holding one reference. The library stays loaded for the rest of the process.
//
// Handles are counted: qel_handle_addref takes a reference, qel_handle_release
// drops one (the last one stops and frees the instance), qel_handle_refcount
// tells how many are held. qel_instance_stop stops the instance's threads;
// qel_instance_destroy stops it if needed and frees it whatever the count, so
// callers use it only when they hold the last reference (the release rule of
// YHandlePtr). A freed handle is never reused: calls with it return
// kInvalidHandle.
//
// Every function returns 0 on success or a code of the runtime's table; the
// detailed reason of the calling thread's last failure (library path, loader
// message) is qel_instance_last_error(). Thread-safety: every function may be
// called from any thread; instances are started and stopped outside the
// handle table's lock.
#pragma once

#include <memory>

#include "Qel/YString.h"

struct _tagQELINS;
typedef _tagQELINS* QELINS;

namespace Qel::Module {

// Handle types understood by qel_handle_refcount and friends.
inline constexpr unsigned int kHandleInstance = 1;

// Log type of instance allocation errors.
inline constexpr unsigned int kLogModule = 198;

// Result codes.
inline constexpr int kModuleLoadFailed = 57;     // the class's library could not be loaded
inline constexpr int kModuleEntryMissing = 58;   // the library has no kModuleEntryPoint
inline constexpr int kModuleRefused = 59;        // the library made no instance of the class, or it failed to start
inline constexpr int kInvalidHandle = 60;        // not a live handle of that type
inline constexpr int kInvalidArgument = 55;

// The C entry point every module library exports:
//   extern "C" int qel_module_create_instance(const char* className,
//                                             const char* instanceName,
//                                             Qel::Module::YInstance** out);
// It returns 0 and a new instance (owned by the caller) or a non-zero code.
inline constexpr const char* kModuleEntryPoint = "qel_module_create_instance";

// The base of every module instance. Start runs once, right after the
// instance is made; Stop may run more than once and must end every thread the
// instance started. Both may raise Qel::Exception::YError.
class YInstance {
 public:
  YInstance(const YString& className, const YString& instanceName)
      : class_name_(className), instance_name_(instanceName) {}
  virtual ~YInstance() = default;
  YInstance(const YInstance&) = delete;
  YInstance& operator=(const YInstance&) = delete;

  virtual void Start(const YString& options) {}
  virtual void Stop() {}

  const YString& GetClassName() const { return class_name_; }
  const YString& GetInstanceName() const { return instance_name_; }

 private:
  YString class_name_;
  YString instance_name_;
};

using CreateInstanceFunction = int (*)(const char* className, const char* instanceName, YInstance** out);

// The body of a module's entry point for its one class T, made as
// T(instanceName): checks the arguments and the class name and hands the new
// instance to the caller (the runtime owns it from then on).
template <typename T>
int CreateInstanceOf(const char* expectedClass, const char* className, const char* instanceName, YInstance** out) {
  if (out == nullptr || className == nullptr) return kInvalidArgument;
  *out = nullptr;
  if (YString(className) != expectedClass) return kModuleRefused;
  *out = std::make_unique<T>(instanceName != nullptr ? instanceName : "").release();
  return 0;
}

}  // namespace Qel::Module

// `flags` must be 0. On success *handle holds one reference.
int qel_instance_alloc(unsigned int flags, const char* className, const char* instanceName, QELINS* handle,
                       const char* options);
int qel_instance_stop(QELINS handle);
int qel_instance_destroy(QELINS handle);
// The live instance behind `handle`, or nullptr. The pointer stays valid while
// the caller holds a reference.
Qel::Module::YInstance* qel_instance_get(QELINS handle);
// The detailed reason of the calling thread's last failed call ("" when none).
const char* qel_instance_last_error();

int qel_handle_refcount(unsigned int type, void* handle, unsigned int* count);
int qel_handle_addref(unsigned int type, void* handle);
int qel_handle_release(unsigned int type, void* handle);
