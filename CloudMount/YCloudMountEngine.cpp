#include "CloudMount/YCloudMountEngine.h"

#define FUSE_USE_VERSION 31
#include <dirent.h>
#include <fuse3/fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/Log/YLog.h"
#include "Qel/Util/Util.h"

namespace CloudMount {

namespace {

constexpr const char* kSource = "CloudMount/YCloudMountEngine";
constexpr unsigned int kLogMount = 221;  // CSM_CMOUNT
constexpr unsigned int kPathMissing = 25;
constexpr unsigned int kBadValue = 55;
constexpr unsigned int kFileNotFound = 174;
constexpr unsigned int kNotInRoot = 165;
constexpr const char* kAgentName = "ZarnuCmd Mount";
constexpr double kAttributeSeconds = 1.0;  // how long the kernel may keep names and attributes

Qel::Log::YLog& Log() { return Qel::Log::GetGlobalLogger(); }

// The text between the quotes of `-name='...'` in `options`, or "".
Qel::YString OptionText(const Qel::YString& options, const std::string& name) {
  const std::string key = "-" + name + "='";
  const size_t start = options.find(key);
  if (start == std::string::npos) return {};
  const size_t from = start + key.size();
  const size_t end = options.find('\'', from);
  return options.substr(from, end == std::string::npos ? std::string::npos : end - from);
}

// The value of `-name=<digits>` in `options`, or `fallback`.
uint64_t OptionNumber(const Qel::YString& options, const std::string& name, uint64_t fallback) {
  const std::string key = "-" + name + "=";
  const size_t start = options.find(key);
  if (start == std::string::npos) return fallback;
  return std::strtoull(options.c_str() + start + key.size(), nullptr, 10);
}

int ErrnoOf(const Qel::Exception::YError& e) {
  const unsigned int code = e.GetCcode();
  return code == kFileNotFound || code == kNotInRoot || code == kPathMissing ? ENOENT : EIO;
}

YCloudMountEngine& Engine() { return *static_cast<YCloudMountEngine*>(fuse_get_context()->private_data); }

void FillStat(const CloudSync::MetadataInfo& entry, struct stat* st) {
  std::memset(st, 0, sizeof(*st));
  st->st_uid = getuid();
  st->st_gid = getgid();
  st->st_mtime = entry.modified;
  if (entry.IsFolder()) {
    st->st_mode = S_IFDIR | 0555;
    st->st_nlink = 2;
  } else {
    st->st_mode = S_IFREG | 0444;
    st->st_nlink = 1;
    st->st_size = static_cast<off_t>(entry.size);
    st->st_blocks = static_cast<blkcnt_t>((entry.size + 511) / 512);
  }
}

// ---- FUSE callbacks: each hands over to the engine ----

void* OnInit(struct fuse_conn_info*, struct fuse_config* config) {
  config->entry_timeout = kAttributeSeconds;
  config->attr_timeout = kAttributeSeconds;
  config->negative_timeout = kAttributeSeconds;
  return fuse_get_context()->private_data;
}

int OnGetAttr(const char* path, struct stat* st, struct fuse_file_info*) {
  CloudSync::MetadataPtr entry;
  if (int failed = Engine().Lookup(path, &entry)) return failed;
  FillStat(*entry, st);
  return 0;
}

int OnReadDir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, struct fuse_file_info*,
              enum fuse_readdir_flags) {
  YFolderCache::FolderPtr folder;
  if (int failed = Engine().ListFolder(path, &folder)) return failed;
  fill(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  fill(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  for (const auto& [name, entry] : *folder) {
    struct stat st;
    FillStat(*entry, &st);
    if (fill(buffer, name.c_str(), &st, 0, static_cast<fuse_fill_dir_flags>(0)) != 0) break;
  }
  return 0;
}

int OnOpen(const char* path, struct fuse_file_info* info) {
  if ((info->flags & O_ACCMODE) != O_RDONLY || (info->flags & O_TRUNC) != 0) return -EROFS;
  CloudSync::MetadataPtr entry;
  if (int failed = Engine().Lookup(path, &entry)) return failed;
  if (entry->IsFolder()) return -EISDIR;
  info->fh = Engine().OpenFile(entry);
  return 0;
}

int OnRead(const char*, char* buffer, size_t size, off_t offset, struct fuse_file_info* info) {
  CloudSync::MetadataPtr entry = Engine().GetOpenFile(info->fh);
  if (!entry) return -EBADF;
  return Engine().Read(entry, buffer, size, static_cast<uint64_t>(offset));
}

int OnRelease(const char*, struct fuse_file_info* info) {
  Engine().CloseFile(info->fh);
  return 0;
}

// Every change is refused: the volume is read-only.
int RefusePath(const char*) { return -EROFS; }
int RefuseMode(const char*, mode_t) { return -EROFS; }
int RefuseTwo(const char*, const char*) { return -EROFS; }
int RefuseRename(const char*, const char*, unsigned int) { return -EROFS; }
int RefuseChmod(const char*, mode_t, struct fuse_file_info*) { return -EROFS; }
int RefuseChown(const char*, uid_t, gid_t, struct fuse_file_info*) { return -EROFS; }
int RefuseTruncate(const char*, off_t, struct fuse_file_info*) { return -EROFS; }
int RefuseWrite(const char*, const char*, size_t, off_t, struct fuse_file_info*) { return -EROFS; }
int RefuseCreate(const char*, mode_t, struct fuse_file_info*) { return -EROFS; }
int RefuseMknod(const char*, mode_t, dev_t) { return -EROFS; }
int RefuseSetXattr(const char*, const char*, const char*, size_t, int) { return -EROFS; }
int RefuseRemoveXattr(const char*, const char*) { return -EROFS; }
int RefuseUtimens(const char*, const struct timespec*, struct fuse_file_info*) { return -EROFS; }

fuse_operations MakeOperations() {
  fuse_operations ops{};
  ops.init = OnInit;
  ops.getattr = OnGetAttr;
  ops.readdir = OnReadDir;
  ops.open = OnOpen;
  ops.read = OnRead;
  ops.release = OnRelease;
  ops.mkdir = RefuseMode;
  ops.unlink = RefusePath;
  ops.rmdir = RefusePath;
  ops.symlink = RefuseTwo;
  ops.link = RefuseTwo;
  ops.rename = RefuseRename;
  ops.chmod = RefuseChmod;
  ops.chown = RefuseChown;
  ops.truncate = RefuseTruncate;
  ops.write = RefuseWrite;
  ops.create = RefuseCreate;
  ops.mknod = RefuseMknod;
  ops.setxattr = RefuseSetXattr;
  ops.removexattr = RefuseRemoveXattr;
  ops.utimens = RefuseUtimens;
  return ops;
}

// Raises unless `path` is an existing, empty folder that is not a mount point.
void CheckMountPoint(const Qel::YString& path) {
  struct stat own{};
  if (::stat(path.c_str(), &own) != 0) {
    if (errno == ENOENT) QEL_RAISE(kLogMount, kPathMissing, "mount point " + path, kSource, "Mount");
    QEL_RAISE_OS(kLogMount, errno, "mount point " + path, kSource, "Mount");
  }
  if (!S_ISDIR(own.st_mode)) QEL_RAISE(kLogMount, kBadValue, "mount point " + path + " is not a folder", kSource, "Mount");
  struct stat parent{};
  if (::stat((path + "/..").c_str(), &parent) == 0 && parent.st_dev != own.st_dev) {
    QEL_RAISE(kLogMount, kBadValue, "mount point " + path + " is already a mount point", kSource, "Mount");
  }
  DIR* folder = ::opendir(path.c_str());
  if (folder == nullptr) QEL_RAISE_OS(kLogMount, errno, "mount point " + path, kSource, "Mount");
  bool empty = true;
  while (dirent* item = ::readdir(folder)) {
    if (std::strcmp(item->d_name, ".") != 0 && std::strcmp(item->d_name, "..") != 0) empty = false;
  }
  ::closedir(folder);
  if (!empty) QEL_RAISE(kLogMount, kBadValue, "mount point " + path + " is not empty", kSource, "Mount");
}

}  // namespace

YCloudMountEngine::YCloudMountEngine(const Qel::YString& instanceName)
    : YCloudMountInstance(kClassName, instanceName), throughput_("Part download", 1000, 5) {}

YCloudMountEngine::~YCloudMountEngine() { Stop(); }

void YCloudMountEngine::Start(const Qel::YString& options) {
  const Qel::YString token = OptionText(options, "authToken");
  const Qel::YString address = OptionText(options, "cloudAddress");
  if (token.empty() || address.empty()) {
    QEL_RAISE(kLogMount, kBadValue, "the mount needs -authToken='...' and -cloudAddress='...'", kSource, "Start");
  }
  api_ = std::make_unique<CloudSync::YCloudApi>(kAgentName, address);
  api_->Login(token);
  ahead_api_ = std::make_unique<CloudSync::YCloudApi>(kAgentName, address);
  ahead_api_->Login(token);
  cache_ = std::make_unique<YPartCache>(OptionNumber(options, "cacheBytes", kDefaultCacheBytes));
  folders_ = std::make_unique<YFolderCache>([this](const Qel::YString& folder) { return FetchFolder(folder); });
  throughput_.Start();
}

Qel::YString YCloudMountEngine::CloudPathOf(const char* path) const {
  const Qel::YString inside = path;
  if (inside == "/" || inside.empty()) return cloud_root_.empty() ? Qel::YString("/") : cloud_root_;
  return cloud_root_ + inside;
}

YFolderCache::Folder YCloudMountEngine::FetchFolder(const Qel::YString& cloudFolder) {
  YFolderCache::Folder folder;
  CloudSync::YCloudApi::ListParam param;
  param.path = cloudFolder;
  param.includeParts = true;
  param.partLimit = 0;  // every part of every file
  for (;;) {
    CloudSync::YCloudApi::ListResult page = api_->ListPath(param);
    for (const CloudSync::MetadataPtr& entry : page.entries) {
      if (entry->deleted != 0 || entry->path == cloudFolder) continue;  // each page is headed by the folder
      folder[Qel::File::GetFileFromPath(entry->path)] = entry;
    }
    if (!page.more) break;
    param.cursor = page.cursor;
  }
  return folder;
}

void YCloudMountEngine::Mount(const Qel::YString& cloudPath, const Qel::YString& localPath) {
  Qel::YString root = cloudPath;
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  if (root.empty() || root.front() != '/') root = "/" + root;
  char absolute[PATH_MAX];
  const Qel::YString local = ::realpath(localPath.c_str(), absolute) != nullptr ? Qel::YString(absolute) : localPath;
  CheckMountPoint(local);
  cloud_root_ = root == "/" ? Qel::YString() : root;
  local_path_ = local;

  // The cloud folder must exist and be a folder: ask its parent.
  if (!cloud_root_.empty()) {
    const Qel::YString name = Qel::File::GetFileFromPath(cloud_root_);
    Qel::YString parent = Qel::File::RemoveFileFromPath(cloud_root_);
    if (parent.empty()) parent = "/";
    YFolderCache::FolderPtr listing = folders_->Get(parent);
    auto it = listing->find(name);
    if (it == listing->end() || !it->second->IsFolder()) {
      QEL_RAISE(kLogMount, kFileNotFound, "cloud folder " + root, kSource, "Mount");
    }
  }
  folders_->Get(CloudPathOf("/"));

  const fuse_operations ops = MakeOperations();
  std::string program = "zarnu-mount", dash_o = "-o", mount_options = "ro,default_permissions,fsname=zarnu,subtype=zarnu";
  char* argv[] = {program.data(), dash_o.data(), mount_options.data(), nullptr};
  fuse_args args = FUSE_ARGS_INIT(3, argv);
  fuse_ = fuse_new(&args, &ops, sizeof(ops), this);
  if (fuse_ == nullptr) QEL_RAISE(kLogMount, kBadValue, "FUSE refused the volume's options", kSource, "Mount");
  if (fuse_mount(fuse_, local.c_str()) != 0) {
    fuse_destroy(fuse_);
    fuse_ = nullptr;
    QEL_RAISE(kLogMount, kBadValue,
              "could not mount at " + local + " (is /dev/fuse there, and fusermount3 installed?)", kSource, "Mount");
  }
  Log().Write(kLogMount, "Mounted cloud folder " + root + " at " + local);
  struct fuse* session = fuse_;
  worker_ = std::make_unique<Qel::Thread::YThread>("cloud mount", [session] { fuse_loop(session); });
  worker_->Start();
  ahead_ = std::make_unique<Qel::Thread::YThread>("cloud mount read-ahead", [this] { ReadAheadBody(); });
  ahead_->Start();
}

bool YCloudMountEngine::IsActive() const { return worker_ && worker_->IsRunning(); }

void YCloudMountEngine::Stop() {
  std::lock_guard<std::mutex> lock(stop_mutex_);
  if (ahead_) {
    ahead_->RequestTermination();
    {
      std::lock_guard<std::mutex> ahead_lock(ahead_mutex_);
      ahead_cv_.notify_all();
    }
    ahead_->Join();
  }
  if (fuse_ == nullptr) return;
  if (!unmounted_) {
    unmounted_ = true;
    if (worker_->IsRunning()) {
      fuse_exit(fuse_);
      fuse_unmount(fuse_);  // the loop's next read ends
    }
  }
  worker_->Join();
  fuse_destroy(fuse_);
  fuse_ = nullptr;
  Log().Write(kLogMount, "Unmounted " + local_path_);
}

Qel::YString YCloudMountEngine::GetPartDownloadThroughput() const {
  return throughput_.GetThroughputSizeDisplayString(false);
}

int YCloudMountEngine::Lookup(const char* path, CloudSync::MetadataPtr* entry) {
  const Qel::YString inside = path;
  if (inside == "/") {
    auto root = std::make_shared<CloudSync::MetadataInfo>();
    root->path = CloudPathOf("/");
    root->attributes = Qel::File::kAttributeFolder;
    *entry = root;
    return 0;
  }
  Qel::YString parent = Qel::File::RemoveFileFromPath(inside);
  if (parent.empty()) parent = "/";
  try {
    YFolderCache::FolderPtr folder = folders_->Get(CloudPathOf(parent.c_str()));
    auto it = folder->find(Qel::File::GetFileFromPath(inside));
    if (it == folder->end()) return -ENOENT;
    *entry = it->second;
    return 0;
  } catch (const Qel::Exception::YError& e) {
    Log().Write(kLogMount, "Listing " + CloudPathOf(parent.c_str()) + " failed: " + e.GetSummary());
    return -ErrnoOf(e);
  }
}

int YCloudMountEngine::ListFolder(const char* path, YFolderCache::FolderPtr* folder) {
  CloudSync::MetadataPtr entry;
  if (int failed = Lookup(path, &entry)) return failed;
  if (!entry->IsFolder()) return -ENOTDIR;
  try {
    *folder = folders_->Get(CloudPathOf(path));
    return 0;
  } catch (const Qel::Exception::YError& e) {
    Log().Write(kLogMount, "Listing " + CloudPathOf(path) + " failed: " + e.GetSummary());
    return -ErrnoOf(e);
  }
}

YPartCache::Bytes YCloudMountEngine::FetchPart(const CloudSync::MetadataInfo& file, const CloudSync::PartInfo& part) {
  {
    // A part on its way from the read-ahead thread is waited for, not fetched again.
    std::unique_lock<std::mutex> lock(ahead_mutex_);
    ahead_cv_.wait(lock, [&] { return in_flight_.count(part.fingerprint) == 0; });
  }
  if (YPartCache::Bytes cached = cache_->Find(part.fingerprint)) return cached;
  return Download(*api_, file, part);
}

YPartCache::Bytes YCloudMountEngine::Download(CloudSync::YCloudApi& api, const CloudSync::MetadataInfo& file,
                                              const CloudSync::PartInfo& part) {
  auto wanted = std::make_shared<CloudSync::PartInfo>();
  wanted->fingerprint = part.fingerprint;
  wanted->size = part.size;
  wanted->offset = part.offset;
  // The client checks the bytes against the fingerprint (169 on a mismatch).
  api.GetParts(CloudSync::PartList{wanted}, file.id);
  if (wanted->data.GetSize() != part.size) {
    QEL_RAISE(kLogMount, 169, "part " + part.fingerprint + " of " + file.path + " came back the wrong size", kSource,
              "Download");
  }
  auto bytes = std::make_shared<const std::string>(reinterpret_cast<const char*>(wanted->data.Get()), part.size);
  throughput_.ReportData(part.size);
  cache_->Put(part.fingerprint, bytes);
  return bytes;
}

void YCloudMountEngine::ReadAhead(const CloudSync::MetadataPtr& file, const CloudSync::PartInfo& part) {
  if (cache_->Contains(part.fingerprint)) return;
  std::lock_guard<std::mutex> lock(ahead_mutex_);
  if (!in_flight_.insert(part.fingerprint).second) return;
  CloudSync::PartInfo wanted;
  wanted.fingerprint = part.fingerprint;
  wanted.size = part.size;
  wanted.offset = part.offset;
  ahead_queue_.emplace_back(file, std::move(wanted));
  ahead_cv_.notify_all();
}

void YCloudMountEngine::ReadAheadBody() {
  for (;;) {
    std::pair<CloudSync::MetadataPtr, CloudSync::PartInfo> job;
    {
      std::unique_lock<std::mutex> lock(ahead_mutex_);
      ahead_cv_.wait(lock, [this] { return !ahead_queue_.empty() || ahead_->IsTerminationRequested(); });
      if (ahead_->IsTerminationRequested()) {
        ahead_queue_.clear();
        in_flight_.clear();
        ahead_cv_.notify_all();
        return;
      }
      job = std::move(ahead_queue_.front());
      ahead_queue_.pop_front();
    }
    const Qel::YString fingerprint = job.second.fingerprint;
    try {
      Download(*ahead_api_, *job.first, job.second);
    } catch (const Qel::Exception::YError& e) {
      // The read that needs the part fetches it itself and reports the failure.
      Log().Write(kLogMount, "Reading ahead part " + fingerprint + " failed: " + e.GetSummary());
    }
    std::lock_guard<std::mutex> lock(ahead_mutex_);
    in_flight_.erase(fingerprint);
    ahead_cv_.notify_all();
  }
}

int YCloudMountEngine::Read(const CloudSync::MetadataPtr& entry, char* buffer, size_t size, uint64_t offset) {
  const CloudSync::MetadataInfo& file = *entry;
  if (offset >= file.size) return 0;
  // Sequential: this read starts where the last one of the file ended.
  const bool sequential = offset == 0 || read_ends_[file.id] == offset;
  const uint64_t end = std::min<uint64_t>(file.size, offset + size);
  uint64_t at = offset;
  for (const CloudSync::PartPtr& part : file.parts) {
    if (at >= end) break;
    if (part->offset + part->size <= at) continue;
    try {
      YPartCache::Bytes bytes = FetchPart(file, *part);
      const uint64_t from = at - part->offset;
      const uint64_t count = std::min<uint64_t>(part->size - from, end - at);
      std::memcpy(buffer + (at - offset), bytes->data() + from, count);
      at += count;
    } catch (const Qel::Exception::YError& e) {
      Log().Write(kLogMount, "Reading " + file.path + " at " + std::to_string(at) + " failed: " + e.GetSummary());
      return -EIO;
    }
  }
  if (at < end) {
    Log().Write(kLogMount, "The parts of " + file.path + " do not cover its size");
    return -EIO;
  }
  read_ends_[file.id] = at;
  if (sequential) {
    // The part after the one this read ended in.
    for (const CloudSync::PartPtr& part : file.parts) {
      if (part->offset >= at && part->offset > offset) {
        ReadAhead(entry, *part);
        break;
      }
    }
  }
  return static_cast<int>(at - offset);
}

uint64_t YCloudMountEngine::OpenFile(CloudSync::MetadataPtr entry) {
  std::lock_guard<std::mutex> lock(open_mutex_);
  const uint64_t handle = next_handle_++;
  open_files_[handle] = std::move(entry);
  return handle;
}

CloudSync::MetadataPtr YCloudMountEngine::GetOpenFile(uint64_t handle) {
  std::lock_guard<std::mutex> lock(open_mutex_);
  auto it = open_files_.find(handle);
  return it == open_files_.end() ? nullptr : it->second;
}

void YCloudMountEngine::CloseFile(uint64_t handle) {
  std::lock_guard<std::mutex> lock(open_mutex_);
  open_files_.erase(handle);
}

}  // namespace CloudMount

// The module entry point the runtime looks up in libCloudMount.so.
extern "C" __attribute__((visibility("default"))) int qel_module_create_instance(const char* className,
                                                                                 const char* instanceName,
                                                                                 Qel::Module::YInstance** out) {
  return Qel::Module::CreateInstanceOf<CloudMount::YCloudMountEngine>(CloudMount::kClassName, className,
                                                                      instanceName, out);
}
