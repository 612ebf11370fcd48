#include "SqliteEnvVfs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sqlite3.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace zarnu::cloud {

namespace {

// The layer of one Env. `vfs` comes first so that a sqlite3_vfs* is an EnvVfs*.
struct EnvVfs {
    sqlite3_vfs vfs{};
    sqlite3_vfs* real = nullptr;
    Env* env = nullptr;
    std::string name;
};

// One open file: ours first (so a sqlite3_file* is an EnvFile*), SQLite's unix file
// right behind it. `fd` is our own descriptor for the same file, -1 for files SQLite
// opens without a name (temporary files), which go to the unix layer untouched.
struct EnvFile {
    sqlite3_file base;
    EnvVfs* owner;
    int fd;
    bool syncFolder;  // a new journal or WAL: its folder is synced with its first sync
    char* path;       // SQLite's copy of the name; lives while the file is open
};

constexpr std::size_t kRealOffset = (sizeof(EnvFile) + 15) / 16 * 16;

sqlite3_file* realOf(sqlite3_file* f) { return reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(f) + kRealOffset); }
EnvFile& own(sqlite3_file* f) { return *reinterpret_cast<EnvFile*>(f); }
Env& envOf(sqlite3_file* f) { return *own(f).owner->env; }

int failed(int code) { return (errno == ENOSPC || errno == EDQUOT) ? SQLITE_FULL : code; }

std::string folderOf(const char* path) {
    const char* slash = std::strrchr(path, '/');
    if (!slash) return ".";
    if (slash == path) return "/";
    return std::string(path, static_cast<std::size_t>(slash - path));
}

int fileClose(sqlite3_file* f) {
    sqlite3_file* real = realOf(f);
    const int rc = real->pMethods ? real->pMethods->xClose(real) : SQLITE_OK;
    if (own(f).fd >= 0) envOf(f).close(own(f).fd);
    own(f).fd = -1;
    return rc;
}

int fileRead(sqlite3_file* f, void* out, int amount, sqlite3_int64 offset) {
    if (own(f).fd < 0) return realOf(f)->pMethods->xRead(realOf(f), out, amount, offset);
    auto* p = static_cast<char*>(out);
    std::size_t done = 0;
    const auto want = static_cast<std::size_t>(amount);
    while (done < want) {
        const ssize_t n = ::pread(own(f).fd, p + done, want - done, static_cast<off_t>(offset) + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return SQLITE_IOERR_READ;
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    if (done == want) return SQLITE_OK;
    std::memset(p + done, 0, want - done);
    return SQLITE_IOERR_SHORT_READ;
}

int fileWrite(sqlite3_file* f, const void* data, int amount, sqlite3_int64 offset) {
    if (own(f).fd < 0) return realOf(f)->pMethods->xWrite(realOf(f), data, amount, offset);
    const auto* p = static_cast<const char*>(data);
    std::size_t done = 0;
    const auto want = static_cast<std::size_t>(amount);
    while (done < want) {
        const ssize_t n =
            envOf(f).pwrite(own(f).fd, p + done, want - done, static_cast<off_t>(offset) + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return failed(SQLITE_IOERR_WRITE);
        done += static_cast<std::size_t>(n);
    }
    return SQLITE_OK;
}

int fileTruncate(sqlite3_file* f, sqlite3_int64 size) {
    if (own(f).fd < 0) return realOf(f)->pMethods->xTruncate(realOf(f), size);
    return envOf(f).ftruncate(own(f).fd, static_cast<off_t>(size)) == 0 ? SQLITE_OK : failed(SQLITE_IOERR_TRUNCATE);
}

int fileSync(sqlite3_file* f, int flags) {
    if (own(f).fd < 0) return realOf(f)->pMethods->xSync(realOf(f), flags);
    if (envOf(f).fsync(own(f).fd) != 0) return failed(SQLITE_IOERR_FSYNC);
    if (own(f).syncFolder) {
        if (envOf(f).fsyncDirectory(folderOf(own(f).path).c_str()) != 0) return failed(SQLITE_IOERR_DIR_FSYNC);
        own(f).syncFolder = false;
    }
    return SQLITE_OK;
}

int fileSize(sqlite3_file* f, sqlite3_int64* size) {
    if (own(f).fd < 0) return realOf(f)->pMethods->xFileSize(realOf(f), size);
    struct stat st {};
    if (::fstat(own(f).fd, &st) != 0) return SQLITE_IOERR_FSTAT;
    *size = st.st_size;
    return SQLITE_OK;
}

int fileControl(sqlite3_file* f, int op, void* arg) {
    // Size hints would grow the file behind the Env's back.
    if (own(f).fd >= 0 && (op == SQLITE_FCNTL_SIZE_HINT || op == SQLITE_FCNTL_CHUNK_SIZE)) return SQLITE_NOTFOUND;
    return realOf(f)->pMethods->xFileControl(realOf(f), op, arg);
}

int fileLock(sqlite3_file* f, int level) { return realOf(f)->pMethods->xLock(realOf(f), level); }
int fileUnlock(sqlite3_file* f, int level) { return realOf(f)->pMethods->xUnlock(realOf(f), level); }
int fileCheckReservedLock(sqlite3_file* f, int* out) {
    return realOf(f)->pMethods->xCheckReservedLock(realOf(f), out);
}
int fileSectorSize(sqlite3_file* f) { return realOf(f)->pMethods->xSectorSize(realOf(f)); }
int fileDeviceCharacteristics(sqlite3_file* f) {
    return realOf(f)->pMethods->xDeviceCharacteristics(realOf(f));
}
int fileShmMap(sqlite3_file* f, int page, int size, int extend, void volatile** out) {
    return realOf(f)->pMethods->xShmMap(realOf(f), page, size, extend, out);
}
int fileShmLock(sqlite3_file* f, int offset, int n, int flags) {
    return realOf(f)->pMethods->xShmLock(realOf(f), offset, n, flags);
}
void fileShmBarrier(sqlite3_file* f) { realOf(f)->pMethods->xShmBarrier(realOf(f)); }
int fileShmUnmap(sqlite3_file* f, int deleteFlag) { return realOf(f)->pMethods->xShmUnmap(realOf(f), deleteFlag); }

// Version 2: shared memory for WAL, no memory-mapped reads (they would bypass our
// descriptor).
const sqlite3_io_methods kFileMethods = {
    2,           fileClose,        fileRead,         fileWrite,     fileTruncate,
    fileSync,    fileSize,         fileLock,         fileUnlock,    fileCheckReservedLock,
    fileControl, fileSectorSize,   fileDeviceCharacteristics,       fileShmMap,
    fileShmLock, fileShmBarrier,   fileShmUnmap,     nullptr,       nullptr,
};

EnvVfs& ownerOf(sqlite3_vfs* vfs) { return *static_cast<EnvVfs*>(vfs->pAppData); }

int vfsOpen(sqlite3_vfs* vfs, const char* name, sqlite3_file* f, int flags, int* outFlags) {
    EnvVfs& owner = ownerOf(vfs);
    EnvFile& file = own(f);
    file.base.pMethods = nullptr;
    file.owner = &owner;
    file.fd = -1;
    file.syncFolder = false;
    file.path = const_cast<char*>(name);
    sqlite3_file* real = realOf(f);
    real->pMethods = nullptr;
    if (name) {
        int oflags = O_CLOEXEC | ((flags & SQLITE_OPEN_READONLY) ? O_RDONLY : O_RDWR);
        if (flags & SQLITE_OPEN_CREATE) oflags |= O_CREAT;
        if (flags & SQLITE_OPEN_EXCLUSIVE) oflags |= O_EXCL;
        file.fd = owner.env->open(name, oflags, 0644);
        if (file.fd < 0) return SQLITE_CANTOPEN;
        file.syncFolder = (flags & SQLITE_OPEN_CREATE) &&
                          (flags & (SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL | SQLITE_OPEN_SUPER_JOURNAL));
    }
    // The file exists now (we made it): SQLite's own open must not insist on making it.
    const int realFlags = name ? (flags & ~SQLITE_OPEN_EXCLUSIVE) : flags;
    const int rc = owner.real->xOpen(owner.real, name, real, realFlags, outFlags);
    if (rc != SQLITE_OK) {
        if (file.fd >= 0) owner.env->close(file.fd);
        file.fd = -1;
        return rc;
    }
    file.base.pMethods = &kFileMethods;
    return SQLITE_OK;
}

int vfsDelete(sqlite3_vfs* vfs, const char* name, int syncFolder) {
    Env& env = *ownerOf(vfs).env;
    if (env.unlink(name) != 0) return errno == ENOENT ? SQLITE_IOERR_DELETE_NOENT : failed(SQLITE_IOERR_DELETE);
    if (syncFolder && env.fsyncDirectory(folderOf(name).c_str()) != 0) return failed(SQLITE_IOERR_DIR_FSYNC);
    return SQLITE_OK;
}

sqlite3_vfs* realOf(sqlite3_vfs* vfs) { return ownerOf(vfs).real; }

int vfsAccess(sqlite3_vfs* v, const char* name, int flags, int* out) {
    return realOf(v)->xAccess(realOf(v), name, flags, out);
}
int vfsFullPathname(sqlite3_vfs* v, const char* name, int size, char* out) {
    return realOf(v)->xFullPathname(realOf(v), name, size, out);
}
void* vfsDlOpen(sqlite3_vfs* v, const char* name) { return realOf(v)->xDlOpen(realOf(v), name); }
void vfsDlError(sqlite3_vfs* v, int size, char* out) { realOf(v)->xDlError(realOf(v), size, out); }
void (*vfsDlSym(sqlite3_vfs* v, void* handle, const char* symbol))(void) {
    return realOf(v)->xDlSym(realOf(v), handle, symbol);
}
void vfsDlClose(sqlite3_vfs* v, void* handle) { realOf(v)->xDlClose(realOf(v), handle); }
int vfsRandomness(sqlite3_vfs* v, int size, char* out) { return realOf(v)->xRandomness(realOf(v), size, out); }
int vfsSleep(sqlite3_vfs* v, int micros) { return realOf(v)->xSleep(realOf(v), micros); }
int vfsCurrentTime(sqlite3_vfs* v, double* out) { return realOf(v)->xCurrentTime(realOf(v), out); }
int vfsGetLastError(sqlite3_vfs* v, int size, char* out) { return realOf(v)->xGetLastError(realOf(v), size, out); }
int vfsCurrentTimeInt64(sqlite3_vfs* v, sqlite3_int64* out) {
    return realOf(v)->xCurrentTimeInt64(realOf(v), out);
}

}  // namespace

std::string sqliteVfsFor(Env& env) {
    static std::mutex mutex;
    static std::map<Env*, std::unique_ptr<EnvVfs>> layers;  // registered for good
    std::lock_guard lock(mutex);
    auto& layer = layers[&env];
    if (layer) return layer->name;
    sqlite3_vfs* real = sqlite3_vfs_find("unix");
    if (!real) throw std::runtime_error("SQLite has no unix file layer");
    auto made = std::make_unique<EnvVfs>();
    char name[64];
    std::snprintf(name, sizeof name, "zarnu-env-%p", static_cast<void*>(&env));
    made->name = name;
    made->real = real;
    made->env = &env;
    sqlite3_vfs& v = made->vfs;
    v.iVersion = 2;
    v.szOsFile = static_cast<int>(kRealOffset) + real->szOsFile;
    v.mxPathname = real->mxPathname;
    v.zName = made->name.c_str();
    v.pAppData = made.get();
    v.xOpen = vfsOpen;
    v.xDelete = vfsDelete;
    v.xAccess = vfsAccess;
    v.xFullPathname = vfsFullPathname;
    v.xDlOpen = vfsDlOpen;
    v.xDlError = vfsDlError;
    v.xDlSym = vfsDlSym;
    v.xDlClose = vfsDlClose;
    v.xRandomness = vfsRandomness;
    v.xSleep = vfsSleep;
    v.xCurrentTime = vfsCurrentTime;
    v.xGetLastError = vfsGetLastError;
    v.xCurrentTimeInt64 = vfsCurrentTimeInt64;
    if (sqlite3_vfs_register(&v, 0) != SQLITE_OK) throw std::runtime_error("cannot register a SQLite file layer");
    layer = std::move(made);
    return layer->name;
}

}  // namespace zarnu::cloud
