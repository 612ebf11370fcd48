#include "Qel/Module/YInstance.h"

#include <dlfcn.h>

#include <cctype>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"

namespace {

using Qel::Module::YInstance;

// One live instance. Invariant: an entry is in the table exactly while its
// handle is valid; `instance` is never null there.
struct Entry {
  std::shared_ptr<YInstance> instance;
  unsigned int references = 0;
};

std::mutex& TableMutex() {
  static std::mutex m;
  return m;
}

// Handles are the ids below, never reused, so a stale handle is caught.
std::map<uintptr_t, Entry>& Table() {
  static std::map<uintptr_t, Entry> table;
  return table;
}

uintptr_t& NextId() {
  static uintptr_t next = 1;
  return next;
}

thread_local std::string t_last_error;

int Fail(int code, const std::string& why) {
  t_last_error = why;
  return code;
}

uintptr_t IdOf(const void* handle) { return reinterpret_cast<uintptr_t>(handle); }

bool IsClassName(const char* name) {
  if (name == nullptr || *name == '\0') return false;
  for (const char* c = name; *c != '\0'; ++c) {
    if (!std::isalnum(static_cast<unsigned char>(*c)) && *c != '_') return false;
  }
  return true;
}

// The folder of libQel.so, where the module libraries are installed beside it.
Qel::YString RuntimeFolder() {
  Dl_info self{};
  if (dladdr(reinterpret_cast<void*>(&qel_instance_alloc), &self) == 0 || self.dli_fname == nullptr) return {};
  return Qel::File::RemoveFileFromPath(self.dli_fname);
}

// Opens lib<className>.so and finds its entry point. Libraries are loaded
// once and stay loaded: instances' code must outlive every handle.
int LoadEntryPoint(const std::string& className, Qel::Module::CreateInstanceFunction* create) {
  static std::mutex load_mutex;
  static std::map<std::string, Qel::Module::CreateInstanceFunction> loaded;
  std::lock_guard<std::mutex> lock(load_mutex);
  if (auto it = loaded.find(className); it != loaded.end()) {
    *create = it->second;
    return 0;
  }
  const std::string file = "lib" + className + ".so";
  const Qel::YString beside = Qel::File::AppendPaths(RuntimeFolder(), file);
  void* library = dlopen(beside.c_str(), RTLD_NOW | RTLD_LOCAL);
  std::string why;
  if (library == nullptr) {
    const char* first = dlerror();
    why = first ? first : "unknown reason";
    library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  }
  if (library == nullptr) {
    const char* second = dlerror();
    return Fail(Qel::Module::kModuleLoadFailed,
                file + " (" + why + (second && why != second ? std::string("; ") + second : std::string()) + ")");
  }
  auto entry = reinterpret_cast<Qel::Module::CreateInstanceFunction>(dlsym(library, Qel::Module::kModuleEntryPoint));
  if (entry == nullptr) {
    return Fail(Qel::Module::kModuleEntryMissing, file + " has no " + Qel::Module::kModuleEntryPoint);
  }
  loaded.emplace(className, entry);
  *create = entry;
  return 0;
}

std::shared_ptr<YInstance> Lookup(uintptr_t id) {
  std::lock_guard<std::mutex> lock(TableMutex());
  auto it = Table().find(id);
  return it == Table().end() ? nullptr : it->second.instance;
}

// Stops an instance, turning a raised error into a code.
int StopInstance(YInstance& instance) {
  try {
    instance.Stop();
    return 0;
  } catch (const Qel::Exception::YError& e) {
    return Fail(static_cast<int>(e.GetCcode()), e.GetSummary());
  }
}

}  // namespace

int qel_instance_alloc(unsigned int flags, const char* className, const char* instanceName, QELINS* handle,
                       const char* options) {
  t_last_error.clear();
  if (handle == nullptr || flags != 0) return Fail(Qel::Module::kInvalidArgument, "bad handle pointer or flags");
  *handle = nullptr;
  if (!IsClassName(className)) {
    return Fail(Qel::Module::kInvalidArgument,
                "class name \"" + std::string(className ? className : "") + "\" (letters, digits and _ only)");
  }
  Qel::Module::CreateInstanceFunction create = nullptr;
  if (int code = LoadEntryPoint(className, &create); code != 0) return code;

  YInstance* made = nullptr;
  const int code = create(className, instanceName ? instanceName : "", &made);
  std::shared_ptr<YInstance> instance(made);
  if (code != 0 || !instance) {
    return Fail(code != 0 ? code : Qel::Module::kModuleRefused,
                "lib" + std::string(className) + ".so made no instance of class " + className);
  }
  try {
    instance->Start(options ? options : "");
  } catch (const Qel::Exception::YError& e) {
    StopInstance(*instance);
    return Fail(static_cast<int>(e.GetCcode()), e.GetSummary());
  }
  std::lock_guard<std::mutex> lock(TableMutex());
  const uintptr_t id = NextId()++;
  Table()[id] = Entry{std::move(instance), 1};
  *handle = reinterpret_cast<QELINS>(id);
  return 0;
}

int qel_instance_stop(QELINS handle) {
  t_last_error.clear();
  std::shared_ptr<YInstance> instance = Lookup(IdOf(handle));
  if (!instance) return Fail(Qel::Module::kInvalidHandle, "no live instance behind the handle");
  return StopInstance(*instance);
}

int qel_instance_destroy(QELINS handle) {
  t_last_error.clear();
  std::shared_ptr<YInstance> instance;
  {
    std::lock_guard<std::mutex> lock(TableMutex());
    auto it = Table().find(IdOf(handle));
    if (it == Table().end()) return Fail(Qel::Module::kInvalidHandle, "no live instance behind the handle");
    instance = std::move(it->second.instance);
    Table().erase(it);
  }
  // Freed outside the lock: an instance's destructor may join threads that
  // use the table themselves.
  const int code = StopInstance(*instance);
  instance.reset();
  return code;
}

Qel::Module::YInstance* qel_instance_get(QELINS handle) { return Lookup(IdOf(handle)).get(); }

const char* qel_instance_last_error() { return t_last_error.c_str(); }

namespace {

// Runs `change` on the table entry of `handle` under the table's lock; the
// common checks of the qel_handle_* calls. Returns 0 or their code.
template <typename Change>
int WithEntry(unsigned int type, void* handle, Change change) {
  t_last_error.clear();
  if (type != Qel::Module::kHandleInstance) {
    return Fail(Qel::Module::kInvalidArgument, "unknown handle type " + std::to_string(type));
  }
  std::lock_guard<std::mutex> lock(TableMutex());
  auto it = Table().find(IdOf(handle));
  if (it == Table().end()) return Fail(Qel::Module::kInvalidHandle, "no live instance behind the handle");
  change(it->second);
  return 0;
}

}  // namespace

int qel_handle_refcount(unsigned int type, void* handle, unsigned int* count) {
  if (count == nullptr) return Fail(Qel::Module::kInvalidArgument, "no place for the count");
  return WithEntry(type, handle, [count](Entry& entry) { *count = entry.references; });
}

int qel_handle_addref(unsigned int type, void* handle) {
  return WithEntry(type, handle, [](Entry& entry) { ++entry.references; });
}

int qel_handle_release(unsigned int type, void* handle) {
  bool last = false;
  const int code = WithEntry(type, handle, [&last](Entry& entry) { last = --entry.references == 0; });
  // The last reference went without the release rule: nothing may leak.
  return code == 0 && last ? qel_instance_destroy(static_cast<QELINS>(handle)) : code;
}
