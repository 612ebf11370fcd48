#pragma once
// An Env for tests: the real system calls, plus two things a real disk does only when it
// fails. It fails the Nth write, fsync or rename (from the time it is armed) with a
// chosen errno, doing nothing else; and crash() puts every file it saw changing back to
// its durable state, as a power cut would: bytes not fsync'd are forgotten, and so are
// names (creations, renames, removals, new folders) whose folder was not fsync'd.
//
// Model: a file's durable bytes are those it had when last fsync'd (or, for a file
// that existed before, when this Env first saw it); a path's durable binding is the file
// (or nothing) it named when its folder was last fsync'd. Extended attributes are not
// modelled. Thread-safe (one lock around everything).

#include "Env.h"

#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace zarnu::cloud::test {

class FaultInjectionEnv final : public PosixEnv {
public:
    enum class Op { Write, Fsync, Rename };  ///< Write covers write() and pwrite()

    /// From now on, the nth call (1-based) of `op` fails with `error`.
    void failNth(Op op, std::size_t n, int error);
    /// Whether the armed failure has happened.
    bool failed() const;
    /// Forgets what is not durable (see above). Every file the stores opened must be
    /// closed (the stores destroyed). Afterwards everything on disk counts as durable.
    void crash();

    int open(const char* path, int flags, mode_t mode) override;
    int close(int fd) override;
    ssize_t write(int fd, const void* data, std::size_t size) override;
    ssize_t pwrite(int fd, const void* data, std::size_t size, off_t offset) override;
    int fsync(int fd) override;
    int fsyncDirectory(const char* path) override;
    int rename(const char* from, const char* to) override;
    int unlink(const char* path) override;
    int mkdir(const char* path, mode_t mode) override;

private:
    using FileId = std::size_t;
    struct File {
        std::string durable;  ///< bytes at the last fsync
    };
    /// What a path named at its folder's last sync: a file, nothing, or (new) folder.
    struct Binding {
        std::optional<FileId> file;
        bool absentFolder = false;  ///< nothing, and the path is now a folder
    };

    bool shouldFail(Op op);
    FileId track(const std::string& path);  ///< the file at path, snapshotting it when new to us
    void remember(const std::string& path, Binding binding);

    mutable std::mutex mutex_;
    std::optional<Op> failOp_;
    std::size_t failAt_ = 0, calls_ = 0;
    int error_ = 0;
    bool failed_ = false;

    std::map<FileId, File> files_;
    std::map<std::string, FileId> byPath_;
    std::map<int, FileId> byFd_;
    std::map<std::string, Binding> pending_;  ///< durable bindings of paths changed since their folder's sync
    FileId nextId_ = 1;
};

}  // namespace zarnu::cloud::test
