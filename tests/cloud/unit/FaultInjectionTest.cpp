// The service's stores under a failing disk. Each write, fsync and rename the part store
// and the metadata store make is failed in turn, with EIO and with ENOSPC; after each
// run the disk "crashes" (everything not fsync'd is forgotten) and the stores are opened
// again on the real file system. Whatever the service acknowledged must still be there
// and intact, and nothing half-made may be visible: no hold on a part whose bytes are
// not durable, no file whose parts are unreadable.

#include "ApiError.h"
#include "CloudPath.h"
#include "CloudService.h"
#include "CloudTestSupport.h"
#include "FaultInjectionEnv.h"
#include "Fingerprint.h"
#include "FolderPartStore.h"
#include "PartBatch.h"
#include "SqliteMetadataStore.h"
#include "Stats.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace zarnu::cloud::test {
namespace {

namespace fs = std::filesystem;

constexpr int kRounds = 2;
constexpr std::size_t kMaxRuns = 400;  // far above the operations one workload makes

std::string keyOf(std::string_view path) { return CloudPath::keyOf(CloudPath::parse(path)); }

// What the service answered with success.
struct Acknowledged {
    std::vector<std::string> uploaded;  ///< part bytes whose upload was acknowledged
    std::vector<std::pair<std::string, std::vector<PartRef>>> files;
};

struct Outcome {
    Acknowledged acked;
    std::vector<std::string> tried;  ///< every part the workload sent
    std::vector<std::string> errors;
    bool onlyStorageFull = true;  ///< every error was ApiError StorageFull
};

class FaultInjectionTest : public ::testing::Test {
protected:
    // A fresh, empty data folder.
    fs::path freshData(const std::string& name) {
        const fs::path data = root_.path / name;
        fs::create_directories(data / "parts");
        return data;
    }

    // Makes the database and an account, uploads a few batches (each also holding a part
    // of the batch before) and makes a file of each, through `env`; every failure is
    // caught, as the service would answer it, and the workload goes on.
    Outcome runWorkload(const fs::path& data, Env& env) {
        Outcome out;
        auto note = [&](const std::exception& e) {
            out.errors.push_back(e.what());
            auto* api = dynamic_cast<const ApiError*>(&e);
            if (!api || api->code() != ErrorCode::StorageFull) out.onlyStorageFull = false;
        };
        try {
            SqliteMetadataStore meta(data / "meta.sqlite", 2, env);
            FolderPartStore parts(data / "parts", env);
            Stats stats;
            CloudService service(meta, parts, stats);
            account_ = meta.createAccount("alice", "hash", 1000);
            std::string previous;
            for (int round = 0; round < kRounds; ++round) {
                std::vector<std::string> batch = {bytesOf(70000 + round, round * 2 + 1), bytesOf(5000, round * 2 + 2)};
                if (!previous.empty()) batch.push_back(previous);
                previous = batch[0];
                for (const auto& b : batch) out.tried.push_back(b);
                std::vector<std::string_view> views(batch.begin(), batch.end());
                try {
                    service.uploadParts(account_, PartBatch::makeUpload(views));
                    for (const auto& b : batch) out.acked.uploaded.push_back(b);
                } catch (const std::exception& e) {
                    note(e);
                    continue;
                }
                std::vector<PartRef> refs;
                for (const auto& b : batch) refs.push_back({Fingerprint::of(b), b.size()});
                const std::string path = "/round" + std::to_string(round) + "/file";
                try {
                    service.createFile(account_, path, refs, 1700000000);
                    out.acked.files.emplace_back(path, refs);
                } catch (const std::exception& e) {
                    note(e);
                }
            }
        } catch (const std::exception& e) {
            note(e);  // the stores could not even open
        }
        return out;
    }

    // Opens the data folder on the real file system and checks it against the outcome.
    void checkAfterRestart(const fs::path& data, const Outcome& outcome, const std::string& what) {
        SCOPED_TRACE(what);
        SqliteMetadataStore meta(data / "meta.sqlite", 1);
        FolderPartStore parts(data / "parts");
        for (const std::string& bytes : outcome.acked.uploaded) {
            const std::string fp = Fingerprint::of(bytes);
            EXPECT_EQ(meta.heldPartSize(account_, fp), bytes.size()) << "an acknowledged upload was lost";
            EXPECT_TRUE(parts.get(fp) == bytes) << "an acknowledged part is not intact";
        }
        for (const auto& [path, refs] : outcome.acked.files) {
            const auto entry = meta.entryByKey(account_, keyOf(path));
            ASSERT_TRUE(entry && !entry->deleted) << "an acknowledged file was lost: " << path;
            const auto located = meta.fileParts(entry->id, 0);
            ASSERT_EQ(located.size(), refs.size()) << path;
            for (std::size_t i = 0; i < refs.size(); ++i) EXPECT_EQ(located[i].fingerprint, refs[i].fingerprint);
        }
        // Nothing half-made: a part held (acknowledged or not) has all its bytes, and a
        // file that exists (acknowledged or not) has every part readable.
        for (const std::string& bytes : outcome.tried) {
            const std::string fp = Fingerprint::of(bytes);
            if (meta.heldPartSize(account_, fp)) {
                EXPECT_TRUE(parts.get(fp) == bytes) << "a held part is not intact";
            }
        }
        for (int round = 0; round < kRounds; ++round) {
            const auto entry = meta.entryByKey(account_, keyOf("/round" + std::to_string(round) + "/file"));
            if (!entry) continue;
            for (const auto& loc : meta.fileParts(entry->id, 0))
                EXPECT_TRUE(parts.get(loc.fingerprint)) << "a file has an unreadable part";
        }
        EXPECT_EQ(parts.quarantined(), 0u) << "a part file held damaged bytes";
        EXPECT_TRUE(fs::is_empty(data / "parts" / "tmp"));
    }

    TempDir root_;
    AccountId account_ = 0;
};

TEST_F(FaultInjectionTest, ACrashForgetsExactlyWhatWasNotSynced) {
    // The model itself: a file written but never synced, and a name whose folder was
    // never synced, are gone after a crash; a synced file in a synced folder stays.
    FaultInjectionEnv env;
    const std::string kept = (root_.path / "kept").string(), lost = (root_.path / "lost").string();
    int fd = env.open(kept.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_EQ(env.write(fd, "durable", 7), 7);
    ASSERT_EQ(env.fsync(fd), 0);
    ASSERT_EQ(env.fsyncDirectory(root_.path.c_str()), 0);
    ASSERT_EQ(env.pwrite(fd, "lost", 4, 7), 4);
    env.close(fd);
    fd = env.open(lost.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_EQ(env.write(fd, "x", 1), 1);
    ASSERT_EQ(env.fsync(fd), 0);
    env.close(fd);
    env.crash();
    EXPECT_EQ(fs::file_size(kept), 7u);
    EXPECT_FALSE(fs::exists(lost));
}

TEST_F(FaultInjectionTest, ACrashLosesNothingAcknowledged) {
    // No failure at all, then a crash that forgets every byte and name not synced: if
    // the stores left out one fsync (of a part, its folder or the database), an
    // acknowledged part or file would be missing or torn here.
    const fs::path data = freshData("crash");
    FaultInjectionEnv env;
    const Outcome outcome = runWorkload(data, env);
    ASSERT_TRUE(outcome.errors.empty()) << outcome.errors.front();
    ASSERT_EQ(outcome.acked.files.size(), static_cast<std::size_t>(kRounds));
    env.crash();
    checkAfterRestart(data, outcome, "crash after the workload");
}

TEST_F(FaultInjectionTest, EachFailedWriteFsyncAndRenameLosesNothingAcknowledged) {
    using Op = FaultInjectionEnv::Op;
    const std::pair<Op, const char*> ops[] = {{Op::Write, "write"}, {Op::Fsync, "fsync"}, {Op::Rename, "rename"}};
    const std::pair<int, const char*> errors[] = {{EIO, "EIO"}, {ENOSPC, "ENOSPC"}};
    for (const auto& [op, opName] : ops) {
        for (const auto& [error, errorName] : errors) {
            std::size_t n = 1;
            for (; n <= kMaxRuns; ++n) {
                const std::string what = std::string(opName) + " #" + std::to_string(n) + " fails with " + errorName;
                const fs::path data = freshData(std::string(opName) + errorName + std::to_string(n));
                FaultInjectionEnv env;
                env.failNth(op, n, error);
                const Outcome outcome = runWorkload(data, env);
                if (!env.failed()) {
                    EXPECT_TRUE(outcome.errors.empty()) << what;
                    break;  // the workload makes fewer than n such calls: every one was failed
                }
                // (A failure may go unreported: a checkpoint when the database closes
                // retries on the next open. Losing data over it is caught below.)
                if (error == ENOSPC && !outcome.errors.empty()) {
                    EXPECT_TRUE(outcome.onlyStorageFull) << what << ": " << outcome.errors.front();
                }
                env.crash();
                checkAfterRestart(data, outcome, what);
                fs::remove_all(data);
                if (HasFailure()) return;
            }
            EXPECT_GT(n, 1u) << opName << ": the workload made no such call";
            EXPECT_LE(n, kMaxRuns) << opName;
        }
    }
}

}  // namespace
}  // namespace zarnu::cloud::test
