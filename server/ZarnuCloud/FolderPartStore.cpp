#include "FolderPartStore.h"

#include "Checksum.h"
#include "Fingerprint.h"
#include "Secrets.h"

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

namespace zarnu::cloud {

namespace fs = std::filesystem;

namespace {

constexpr const char* kChecksumAttribute = "user.zarnu.crc32c";

[[noreturn]] void fail(const std::string& what, const fs::path& p) {
    throw std::runtime_error(what + " " + p.string() + ": " + std::strerror(errno));
}

void syncDirectory(const fs::path& dir) {
    UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) fail("cannot open folder", dir);
    if (::fsync(fd.get()) != 0) fail("cannot sync folder", dir);
}

void makeDirectory(const fs::path& dir) {
    if (::mkdir(dir.c_str(), 0700) == 0) {
        syncDirectory(dir.parent_path());
    } else if (errno != EEXIST) {
        fail("cannot create folder", dir);
    }
}

void storeChecksum(int fd, std::string_view bytes) {
    const std::uint32_t crc = crc32c(bytes.data(), bytes.size());
    const unsigned char le[4] = {static_cast<unsigned char>(crc), static_cast<unsigned char>(crc >> 8),
                                 static_cast<unsigned char>(crc >> 16), static_cast<unsigned char>(crc >> 24)};
    // Without extended attributes every read hashes the bytes instead: slower, as safe.
    (void)::fsetxattr(fd, kChecksumAttribute, le, sizeof le, 0);
}

std::optional<std::uint32_t> storedChecksum(int fd) {
    unsigned char le[4];
    if (::fgetxattr(fd, kChecksumAttribute, le, sizeof le) != static_cast<ssize_t>(sizeof le)) return std::nullopt;
    return static_cast<std::uint32_t>(le[0]) | static_cast<std::uint32_t>(le[1]) << 8 |
           static_cast<std::uint32_t>(le[2]) << 16 | static_cast<std::uint32_t>(le[3]) << 24;
}

// Whether the bytes read from `fd` are still the part's: the stored check sum when it
// matches, else the fingerprint itself (which then refreshes the check sum).
bool intact(int fd, std::string_view fingerprint, std::string_view bytes) {
    const std::optional<std::uint32_t> stored = storedChecksum(fd);
    if (stored && *stored == crc32c(bytes.data(), bytes.size())) return true;
    if (!Fingerprint::matches(fingerprint, bytes)) return false;
    storeChecksum(fd, bytes);
    return true;
}

// Where a new part is written before it is renamed into place.
struct Pending {
    std::string_view fingerprint;
    fs::path temp;
    fs::path target;
    UniqueFd fd;
};

class TempFiles {
public:
    explicit TempFiles(std::vector<Pending>& pending) : pending_(pending) {}
    ~TempFiles() {
        for (Pending& p : pending_)
            if (!p.temp.empty()) ::unlink(p.temp.c_str());
    }
    void keep(Pending& p) { p.temp.clear(); }

private:
    std::vector<Pending>& pending_;
};

void writeAll(const Pending& p, std::string_view bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(p.fd.get(), bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("cannot write", p.temp);
        }
        done += static_cast<std::size_t>(n);
    }
}

constexpr std::size_t kPage = 4096;
std::atomic<bool> directWorks{true};  // until a file system here refuses it

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
void writePart(const Pending& p, std::string_view bytes) {
    const std::size_t padded = (bytes.size() + kPage - 1) / kPage * kPage;
    if (directWorks.load() && ::fcntl(p.fd.get(), F_SETFL, O_DIRECT) == 0) {
        if (const unsigned char* copy = alignedCopy(bytes, padded)) {
            std::size_t done = 0;
            while (done < padded) {
                ssize_t n = ::pwrite(p.fd.get(), copy + done, padded - done, static_cast<off_t>(done));
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) break;
                done += static_cast<std::size_t>(n);
            }
            if (done == padded) {
                if (::ftruncate(p.fd.get(), static_cast<off_t>(bytes.size())) != 0) fail("cannot cut", p.temp);
                return;
            }
            if (errno != EINVAL) fail("cannot write", p.temp);
            directWorks = false;
        }
        ::fcntl(p.fd.get(), F_SETFL, 0);
        if (::ftruncate(p.fd.get(), 0) != 0 || ::lseek(p.fd.get(), 0, SEEK_SET) != 0) fail("cannot reset", p.temp);
    }
    writeAll(p, bytes);
}

}  // namespace

FolderPartStore::FolderPartStore(fs::path root) : root_(std::move(root)) {
    std::error_code ec;
    fs::create_directories(root_ / "tmp", ec);
    if (ec) throw std::runtime_error("cannot create part folder " + root_.string() + ": " + ec.message());
    for (const auto& leftover : fs::directory_iterator(root_ / "tmp")) fs::remove(leftover.path(), ec);
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
    std::vector<bool> written(parts.size(), false);
    std::vector<Pending> pending;
    std::set<std::string_view> chosen;  // a part named twice in one batch is written once
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (contains(parts[i].fingerprint) || !chosen.insert(parts[i].fingerprint).second) continue;
        written[i] = true;
        pending.push_back({parts[i].fingerprint, {}, pathOf(parts[i].fingerprint), UniqueFd()});
    }
    TempFiles cleanup(pending);
    // Write every file and start its write-back, then wait for each: the waits overlap
    // and the file system commits them together.
    std::size_t next = 0;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (!written[i]) continue;
        Pending& p = pending[next++];
        p.temp = root_ / "tmp" / (std::string(p.fingerprint.substr(0, 16)) + "." + Secrets::randomHex(8));
        p.fd = UniqueFd(::open(p.temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!p.fd) fail("cannot create", p.temp);
        writePart(p, parts[i].bytes);
        storeChecksum(p.fd.get(), parts[i].bytes);
        (void)::sync_file_range(p.fd.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
    }
    for (Pending& p : pending) {
        if (::fsync(p.fd.get()) != 0) fail("cannot sync", p.temp);
        p.fd.reset();
    }
    std::set<fs::path> folders;
    for (Pending& p : pending) {
        makeDirectory(p.target.parent_path());
        if (::rename(p.temp.c_str(), p.target.c_str()) != 0) fail("cannot rename into", p.target);
        cleanup.keep(p);
        folders.insert(p.target.parent_path());
    }
    for (const fs::path& folder : folders) syncDirectory(folder);
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
    return FileSlice{std::move(fd), static_cast<std::uint64_t>(st.st_size)};
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
    if (!intact(file->fd.get(), fingerprint, out)) return std::nullopt;
    return out;
}

std::optional<FileSlice> FolderPartStore::open(std::string_view fingerprint) {
    std::optional<FileSlice> file = openFile(fingerprint);
    if (!file) return std::nullopt;
    const auto size = static_cast<std::size_t>(file->size);
    // Mapped and read in one go: the check touches the page cache without copying, and
    // leaves the bytes there for the send that follows.
    void* map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED | MAP_POPULATE, file->fd.get(), 0);
    if (map == MAP_FAILED) fail("cannot map", pathOf(fingerprint));
    const bool ok = intact(file->fd.get(), fingerprint, {static_cast<const char*>(map), size});
    ::munmap(map, size);
    if (!ok) return std::nullopt;
    return file;
}

}  // namespace zarnu::cloud
