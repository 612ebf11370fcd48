// The collector beside uploads in flight: a collector that runs as if every part file
// were past its grace, over and over while two threads upload, never removes a part
// an upload has acknowledged (the upload's pins cover the moment between storing the
// bytes and recording the hold).

#include "CloudService.h"
#include "CloudTestSupport.h"
#include "Fingerprint.h"
#include "FolderPartStore.h"
#include "PartBatch.h"
#include "PartCollector.h"
#include "SqliteMetadataStore.h"
#include "Stats.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

namespace zarnu::cloud {
namespace {

TEST(PartCollectorTest, NeverRemovesAPartAnUploadInFlightIsStoring) {
    const test::TempDir dir;  // removed after everything below
    SqliteMetadataStore meta(dir.path / "meta.sqlite", 4);
    FolderPartStore parts(dir.path / "parts");
    Stats stats;
    CloudService service(meta, parts, stats);
    PartCollector collector(meta, parts, service.pins());
    const AccountId alice = meta.createAccount("alice", "hash", 1000);

    std::atomic<bool> done{false};
    std::atomic<std::uint64_t> removed{0};
    std::thread collecting([&] {
        // Past every file's grace, not past the holds' (those are not what is tested).
        while (!done) removed += collector.collect(unixNow() + 2 * PartCollector::kFileGraceSeconds).partsRemoved;
    });
    std::atomic<int> lost{0};
    auto upload = [&](unsigned seed) {
        std::mt19937 gen(seed);
        for (int i = 0; i < 150; ++i) {
            const std::string bytes = test::bytesOf(2000 + gen() % 2000, gen());
            service.uploadParts(alice, PartBatch::makeUpload({bytes}));
            if (!parts.get(Fingerprint::of(bytes))) lost++;
        }
    };
    std::thread first(upload, 1), second(upload, 2);
    first.join();
    second.join();
    done = true;
    collecting.join();
    EXPECT_EQ(lost.load(), 0) << "acknowledged parts were collected";
    EXPECT_EQ(removed.load(), 0u);

    // An unheld part file past its grace is collected; a held one is not.
    const std::string orphan = "orphan bytes", kept = "kept bytes";
    parts.put(Fingerprint::of(orphan), orphan);
    service.uploadParts(alice, PartBatch::makeUpload({kept}));
    EXPECT_EQ(collector.collect(unixNow() + 2 * PartCollector::kFileGraceSeconds).partsRemoved, 1u);
    EXPECT_FALSE(parts.contains(Fingerprint::of(orphan)));
    EXPECT_TRUE(parts.contains(Fingerprint::of(kept)));
}

}  // namespace
}  // namespace zarnu::cloud
