// The folder part store against a real folder: parts come back as stored, a damaged
// part reads as absent (whatever its check sum says) and is moved aside until an upload
// of the same bytes repairs it, a part without a check sum is verified once and gets
// one, a batch that names a part twice writes it once.

#include "Checksum.h"
#include "CloudTestSupport.h"
#include "FolderPartStore.h"
#include "Fingerprint.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <vector>

namespace zarnu::cloud {
namespace {

namespace fs = std::filesystem;
using test::bytesOf;

std::string readSlice(const FileSlice& slice) {
    if (slice.bytes) return std::string(reinterpret_cast<const char*>(slice.bytes.get()), slice.size);
    std::string out(slice.size, '\0');
    EXPECT_EQ(::pread(slice.fd.get(), out.data(), out.size(), 0), static_cast<ssize_t>(out.size()));
    return out;
}

class PartStoreTest : public ::testing::Test {
protected:
    void overwrite(const std::string& fingerprint, const std::string& bytes) {
        // Rewrites the file in place, as a failing disk would: its attributes stay.
        std::fstream f(store_->pathOf(fingerprint), std::ios::in | std::ios::out | std::ios::binary);
        f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    bool hasChecksum(const std::string& fingerprint) {
        char value[4];
        return ::getxattr(store_->pathOf(fingerprint).c_str(), "user.zarnu.crc32c", value, sizeof value) == 4;
    }

    test::TempDir dir_;
    std::unique_ptr<FolderPartStore> store_ = std::make_unique<FolderPartStore>(dir_.path);
};

TEST(ChecksumTest, KnownValueAndPiecewiseEqualsWhole) {
    EXPECT_EQ(crc32c("123456789", 9), 0xE3069283u);  // the CRC-32C check value
    const std::string data = bytesOf(100003, 7);
    const std::uint32_t whole = crc32c(data.data(), data.size());
    EXPECT_EQ(crc32c(data.data() + 4001, data.size() - 4001, crc32c(data.data(), 4001)), whole);
    EXPECT_EQ(crc32c(nullptr, 0), 0u);
}

TEST_F(PartStoreTest, PartsComeBackAsStoredAndABatchWritesEachOnce) {
    const std::string a = bytesOf(1 << 20, 1), b = bytesOf(12345, 2);
    const std::string fa = Fingerprint::of(a), fb = Fingerprint::of(b);
    EXPECT_EQ(store_->putMany({{fa, a}, {fb, b}, {fa, a}}), (std::vector<bool>{true, true, false}));
    EXPECT_EQ(store_->putMany({{fb, b}}), std::vector<bool>{false});
    EXPECT_TRUE(fs::is_empty(dir_.path / "tmp"));

    auto slice = store_->open(fb);
    ASSERT_TRUE(slice);
    EXPECT_EQ(slice->size, b.size());
    EXPECT_EQ(readSlice(*slice), b);
    EXPECT_TRUE(store_->get(fa) == a);
    EXPECT_FALSE(store_->open(Fingerprint::of("never stored")));
}

TEST_F(PartStoreTest, ManyPartsOpenAtOnceComeBackWholeInBoundedReusedMemory) {
    // Parts read past the page cache hold a block of memory each until they are sent;
    // past a bound the rest come from the file, and blocks given back are used again.
    std::vector<std::string> parts, fingerprints;
    for (unsigned i = 0; i < 100; ++i) {
        parts.push_back(bytesOf(4096 * (i % 3) + 1000 + i, 100 + i));
        fingerprints.push_back(Fingerprint::of(parts.back()));
        ASSERT_TRUE(store_->put(fingerprints.back(), parts.back()));
    }
    std::vector<FileSlice> open;
    std::set<const unsigned char*> blocks;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        auto slice = store_->open(fingerprints[i]);
        ASSERT_TRUE(slice);
        EXPECT_TRUE(readSlice(*slice) == parts[i]) << i;
        if (slice->bytes) blocks.insert(slice->bytes.get());
        open.push_back(std::move(*slice));
    }
    EXPECT_LT(blocks.size(), parts.size());
    open.clear();
    auto again = store_->open(fingerprints[7]);
    ASSERT_TRUE(again);
    EXPECT_TRUE(readSlice(*again) == parts[7]);
    if (!blocks.empty()) {
        EXPECT_EQ(blocks.count(again->bytes.get()), 1u) << "a fresh block instead of a used one";
    }
}

// Quarantine and repair through the service are covered by the service's own tests;
// here what only the store sees: parts without a check sum, and damage in place.
TEST_F(PartStoreTest, PartsWithoutACheckSumAreVerifiedAndDamageInPlaceIsReplaced) {
    const std::string a = bytesOf(300000, 3);
    const std::string fa = Fingerprint::of(a);
    ASSERT_TRUE(store_->put(fa, a));
    ASSERT_TRUE(hasChecksum(fa));

    // A part stored before check sums existed: verified by its fingerprint, then given one.
    ASSERT_EQ(::removexattr(store_->pathOf(fa).c_str(), "user.zarnu.crc32c"), 0);
    EXPECT_TRUE(store_->open(fa));
    EXPECT_TRUE(hasChecksum(fa));

    // Damaged bytes under a check sum that matches them: still absent, and out of the way.
    std::string damaged = a;
    damaged[150000] ^= 0x01;
    overwrite(fa, damaged);
    ASSERT_EQ(::setxattr(store_->pathOf(fa).c_str(), "user.zarnu.crc32c", "\0\0\0\0", 4, 0), 0);
    EXPECT_FALSE(store_->open(fa));
    EXPECT_EQ(store_->quarantined(), 1u);

    // Damaged in place while the store holds the part: an upload of the same bytes
    // replaces them rather than trusting what is there.
    EXPECT_TRUE(store_->put(fa, a));
    overwrite(fa, damaged);
    EXPECT_FALSE(store_->put(fa, a));
    EXPECT_TRUE(store_->get(fa) == a);
}

}  // namespace
}  // namespace zarnu::cloud
