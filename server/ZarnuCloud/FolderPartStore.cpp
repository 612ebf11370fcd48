#include "FolderPartStore.h"

#include "Checksum.h"
#include "Fingerprint.h"
#include "Secrets.h"

#include "Qel/File/PageCache.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace zarnu::cloud {

namespace fs = std::filesystem;

namespace {

constexpr const char* kChecksumAttribute = "user.zarnu.crc32c";

[[noreturn]] void fail(const std::string& what, const fs::path& p) {
    throwStorageFailure(what + " " + p.string(), errno);
}

void syncDirectory(Env& env, const fs::path& dir) {
    if (env.fsyncDirectory(dir.c_str()) != 0) fail("cannot sync folder", dir);
}

void makeDirectory(Env& env, const fs::path& dir) {
    if (env.mkdir(dir.c_str(), 0700) == 0) {
        syncDirectory(env, dir.parent_path());
    } else if (errno != EEXIST) {
        fail("cannot create folder", dir);
    }
}

void storeChecksum(Env& env, int fd, std::string_view bytes) {
    const std::uint32_t crc = crc32c(bytes.data(), bytes.size());
    const unsigned char le[4] = {static_cast<unsigned char>(crc), static_cast<unsigned char>(crc >> 8),
                                 static_cast<unsigned char>(crc >> 16), static_cast<unsigned char>(crc >> 24)};
    // Without extended attributes every read hashes the bytes instead: slower, as safe.
    (void)env.fsetxattr(fd, kChecksumAttribute, le, sizeof le);
}

std::optional<std::uint32_t> storedChecksum(int fd) {
    unsigned char le[4];
    if (::fgetxattr(fd, kChecksumAttribute, le, sizeof le) != static_cast<ssize_t>(sizeof le)) return std::nullopt;
    return static_cast<std::uint32_t>(le[0]) | static_cast<std::uint32_t>(le[1]) << 8 |
           static_cast<std::uint32_t>(le[2]) << 16 | static_cast<std::uint32_t>(le[3]) << 24;
}

// Whether the bytes read from `fd` are still the part's: the stored check sum when it
// matches, else the fingerprint itself (which then refreshes the check sum).
bool intact(Env& env, int fd, std::string_view fingerprint, std::string_view bytes) {
    const std::optional<std::uint32_t> stored = storedChecksum(fd);
    if (stored && *stored == crc32c(bytes.data(), bytes.size())) return true;
    if (!Fingerprint::matches(fingerprint, bytes)) return false;
    storeChecksum(env, fd, bytes);
    return true;
}

// Where a new part is written before it is renamed into place.
struct Pending {
    std::string_view fingerprint;
    fs::path temp;
    fs::path target;
    UniqueFd fd;
};

// Removes the temporaries of a batch that did not make it into place.
class TempFiles {
public:
    TempFiles(Env& env, std::vector<Pending>& pending) : env_(env), pending_(pending) {}
    ~TempFiles() {
        for (Pending& p : pending_)
            if (!p.temp.empty()) env_.unlink(p.temp.c_str());
    }
    void keep(Pending& p) { p.temp.clear(); }

private:
    Env& env_;
    std::vector<Pending>& pending_;
};

void writeAll(Env& env, const Pending& p, std::string_view bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = env.write(p.fd.get(), bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("cannot write", p.temp);
        }
        done += static_cast<std::size_t>(n);
    }
}

constexpr std::size_t kPage = 4096;
std::atomic<bool> directWorks{true};  // until a file system here refuses it
std::atomic<bool> directReadsWork{true};
// Parts read past the page cache and not yet sent: a part per request in flight for a
// few dozen clients; past that, reads go through the page cache.
constexpr std::size_t kDirectReadBlocks = 32;

// A page-aligned copy of a part, per thread: what O_DIRECT writes from.
unsigned char* alignedCopy(std::string_view bytes, std::size_t padded) {
    struct Block {
        unsigned char* data = nullptr;
        std::size_t size = 0;
        ~Block() { std::free(data); }
    };
    thread_local Block block;
    if (block.size < padded) {
        void* fresh = nullptr;
        if (::posix_memalign(&fresh, kPage, padded) != 0) return nullptr;
        std::free(block.data);
        block.data = static_cast<unsigned char*>(fresh);
        block.size = padded;
    }
    std::memcpy(block.data, bytes.data(), bytes.size());
    std::memset(block.data + bytes.size(), 0, padded - bytes.size());
    return block.data;
}

// Writes a new part file straight to the disk (O_DIRECT, whole pages, then cut
// to size), past the page cache, whose fresh pages cost more than the disk
// write on many machines. Falls back to an ordinary write where the file
// system refuses.
void writePart(Env& env, const Pending& p, std::string_view bytes) {
    const std::size_t padded = (bytes.size() + kPage - 1) / kPage * kPage;
    if (directWorks.load() && ::fcntl(p.fd.get(), F_SETFL, O_DIRECT) == 0) {
        if (const unsigned char* copy = alignedCopy(bytes, padded)) {
            std::size_t done = 0;
            while (done < padded) {
                ssize_t n = env.pwrite(p.fd.get(), copy + done, padded - done, static_cast<off_t>(done));
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                done += static_cast<std::size_t>(n);
            }
            if (done == padded) {
                if (env.ftruncate(p.fd.get(), static_cast<off_t>(bytes.size())) != 0) fail("cannot cut", p.temp);
                return;
            }
            if (errno != EINVAL) fail("cannot write", p.temp);
            directWorks = false;
        }
        ::fcntl(p.fd.get(), F_SETFL, 0);
        if (env.ftruncate(p.fd.get(), 0) != 0 || ::lseek(p.fd.get(), 0, SEEK_SET) != 0) fail("cannot reset", p.temp);
    }
    writeAll(env, p, bytes);
}

std::int64_t writtenAt(const struct stat& st) { return static_cast<std::int64_t>(st.st_mtim.tv_sec); }

bool isHexName(const std::string& name) {
    if (name.empty()) return false;
    for (char c : name)
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    return true;
}

}  // namespace

FolderPartStore::FolderPartStore(fs::path root, Env& env)
    : root_(std::move(root)), env_(env), buffers_(kDirectReadBlocks, Fingerprint::kMaxPartSize) {
    std::error_code ec;
    fs::create_directories(root_ / "tmp", ec);
    if (ec) throw std::runtime_error("cannot create part folder " + root_.string() + ": " + ec.message());
    for (const auto& leftover : fs::directory_iterator(root_ / "tmp")) fs::remove(leftover.path(), ec);
}

std::mutex& FolderPartStore::placeLock(std::string_view fingerprint) {
    // Parts of one folder share a lock (the folder's first two characters pick it).
    const auto a = static_cast<unsigned char>(fingerprint.size() > 0 ? fingerprint[0] : 0);
    const auto b = static_cast<unsigned char>(fingerprint.size() > 1 ? fingerprint[1] : 0);
    return placeLocks_[(static_cast<std::size_t>(a) * 16 + b) % placeLocks_.size()];
}

fs::path FolderPartStore::pathOf(std::string_view fingerprint) const {
    return root_ / std::string(fingerprint.substr(0, 2)) / std::string(fingerprint);
}

bool FolderPartStore::contains(std::string_view fingerprint) {
    struct stat st {};
    return ::stat(pathOf(fingerprint).c_str(), &st) == 0;
}

bool FolderPartStore::put(std::string_view fingerprint, std::string_view bytes) {
    return putMany({{fingerprint, bytes}}).front();
}

std::vector<bool> FolderPartStore::putMany(const std::vector<NewPart>& parts) {
    // Every distinct part of the batch is written, synced and renamed into place, present
    // before or not: the same work either way (see the header).
    std::vector<Pending> pending;
    std::vector<std::size_t> source;    // pending[k] holds parts[source[k]]
    std::set<std::string_view> chosen;  // a part named twice in one batch is written once
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (!chosen.insert(parts[i].fingerprint).second) continue;
        pending.push_back({parts[i].fingerprint, {}, pathOf(parts[i].fingerprint), UniqueFd()});
        source.push_back(i);
    }
    TempFiles cleanup(env_, pending);
    // Write every file and start its write-back, then wait for each: the waits overlap
    // and the file system commits them together.
    for (std::size_t k = 0; k < pending.size(); ++k) {
        Pending& p = pending[k];
        const std::string_view bytes = parts[source[k]].bytes;
        p.temp = root_ / "tmp" / (std::string(p.fingerprint.substr(0, 16)) + "." + Secrets::randomHex(8));
        p.fd = UniqueFd(env_.open(p.temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!p.fd) fail("cannot create", p.temp);
        writePart(env_, p, bytes);
        storeChecksum(env_, p.fd.get(), bytes);
        (void)::sync_file_range(p.fd.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
    }
    for (Pending& p : pending) {
        if (env_.fsync(p.fd.get()) != 0) fail("cannot sync", p.temp);
        p.fd.reset();
    }
    std::vector<bool> written(parts.size(), false);
    std::set<fs::path> folders;
    for (std::size_t k = 0; k < pending.size(); ++k) {
        Pending& p = pending[k];
        makeDirectory(env_, p.target.parent_path());
        std::lock_guard lock(placeLock(p.fingerprint));
        written[source[k]] = !contains(p.fingerprint);
        if (env_.rename(p.temp.c_str(), p.target.c_str()) != 0) fail("cannot rename into", p.target);
        cleanup.keep(p);
        folders.insert(p.target.parent_path());
    }
    for (const fs::path& folder : folders) syncDirectory(env_, folder);
    return written;
}

std::optional<FileSlice> FolderPartStore::openFile(std::string_view fingerprint) const {
    const fs::path p = pathOf(fingerprint);
    UniqueFd fd(::open(p.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        if (errno == ENOENT) return std::nullopt;
        fail("cannot open", p);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) fail("cannot stat", p);
    if (st.st_size == 0) return std::nullopt;  // parts are never empty
    return FileSlice{std::move(fd), static_cast<std::uint64_t>(st.st_size), nullptr};
}

void FolderPartStore::quarantine(std::string_view fingerprint, int fd) {
    const fs::path place = pathOf(fingerprint);
    const fs::path aside = root_ / "quarantine";
    std::lock_guard lock(placeLock(fingerprint));
    struct stat open {}, placed {};
    if (::fstat(fd, &open) != 0 || ::stat(place.c_str(), &placed) != 0) return;
    if (open.st_ino != placed.st_ino || open.st_dev != placed.st_dev) return;  // already replaced
    if (env_.mkdir(aside.c_str(), 0700) != 0 && errno != EEXIST) fail("cannot create folder", aside);
    const fs::path target = aside / (std::string(fingerprint) + "." + Secrets::randomHex(4));
    if (env_.rename(place.c_str(), target.c_str()) != 0) fail("cannot move aside", place);
    quarantined_++;
}

std::optional<std::string> FolderPartStore::get(std::string_view fingerprint) {
    std::optional<FileSlice> file = openFile(fingerprint);
    if (!file) return std::nullopt;
    std::string out(static_cast<std::size_t>(file->size), '\0');
    std::size_t done = 0;
    while (done < out.size()) {
        ssize_t n = ::read(file->fd.get(), out.data() + done, out.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("cannot read", pathOf(fingerprint));
        }
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    out.resize(done);
    if (!intact(env_, file->fd.get(), fingerprint, out)) {
        quarantine(fingerprint, file->fd.get());
        return std::nullopt;
    }
    return out;
}

std::shared_ptr<unsigned char> FolderPartStore::readDirect(int fd, std::size_t size) {
    if (size > buffers_.blockSize() || !directReadsWork.load()) return nullptr;
    std::shared_ptr<unsigned char> block = buffers_.take();
    if (!block) return nullptr;
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_DIRECT) != 0) return nullptr;
    // Whole pages are asked for; the read stops at the end of the file, so every read but
    // the last starts on a page.
    std::size_t done = 0;
    ssize_t n = 0;
    while (done < size) {
        n = ::pread(fd, block.get() + done, buffers_.blockSize() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    const bool refused = n < 0 && errno == EINVAL && done == 0;
    ::fcntl(fd, F_SETFL, flags);
    if (refused) directReadsWork = false;  // this file system wants other alignments
    return done == size ? block : nullptr;
}

std::optional<FileSlice> FolderPartStore::open(std::string_view fingerprint) {
    std::optional<FileSlice> file = openFile(fingerprint);
    if (!file) return std::nullopt;
    const auto size = static_cast<std::size_t>(file->size);
    // A part the page cache already holds is checked and sent from there. Any other is
    // read past the cache into a block that is used again and again: no fresh page-cache
    // pages to fill, and the cache keeps what it held.
    if (!Qel::File::PageCacheHoldsWhole(file->fd.get(), 0, size)) {
        if (std::shared_ptr<unsigned char> block = readDirect(file->fd.get(), size)) {
            if (!intact(env_, file->fd.get(), fingerprint, {reinterpret_cast<const char*>(block.get()), size})) {
                quarantine(fingerprint, file->fd.get());
                return std::nullopt;
            }
            file->bytes = std::move(block);
            return file;
        }
    }
    // Mapped and read in one go: the check touches the page cache without copying, and
    // leaves the bytes there for the send that follows.
    void* map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED | MAP_POPULATE, file->fd.get(), 0);
    if (map == MAP_FAILED) fail("cannot map", pathOf(fingerprint));
    const bool ok = intact(env_, file->fd.get(), fingerprint, {static_cast<const char*>(map), size});
    ::munmap(map, size);
    if (!ok) {
        quarantine(fingerprint, file->fd.get());
        return std::nullopt;
    }
    return file;
}

void FolderPartStore::forEach(const std::function<void(const StoredPart&)>& visit) {
    std::error_code ec;
    for (const auto& folder : fs::directory_iterator(root_, ec)) {
        const std::string prefix = folder.path().filename().string();
        if (prefix.size() != 2 || !isHexName(prefix)) continue;  // tmp/, quarantine/
        for (const auto& file : fs::directory_iterator(folder.path(), ec)) {
            const std::string name = file.path().filename().string();
            struct stat st {};
            if (!isHexName(name) || ::stat(file.path().c_str(), &st) != 0) continue;
            visit({name, writtenAt(st)});
        }
    }
}

bool FolderPartStore::remove(std::string_view fingerprint, std::int64_t writtenBefore) {
    const fs::path place = pathOf(fingerprint);
    std::lock_guard lock(placeLock(fingerprint));
    struct stat st {};
    if (::stat(place.c_str(), &st) != 0 || writtenAt(st) >= writtenBefore) return false;
    if (env_.unlink(place.c_str()) != 0) {
        if (errno == ENOENT) return false;
        fail("cannot remove", place);
    }
    syncDirectory(env_, place.parent_path());
    return true;
}

}  // namespace zarnu::cloud
