#include "ApiError.h"
#include "StoreFixture.h"

using namespace zarnu::cloud;
using zarnu::cloud::test::StoreFixture;

namespace {

int errorCode(const std::function<void()>& f) {
    try {
        f();
    } catch (const ApiError& e) {
        return static_cast<int>(e.code());
    }
    return 0;
}

}  // namespace

using MetadataStore_ = StoreFixture;

TEST_F(MetadataStore_, FileNeedsEveryPartHeldByThisAccount) {
    // Another account's part and the missing list are checked through the service (test_parts).
    PartRef mine = held(alice, "mine");
    PartRef wrongSize{mine.fingerprint, mine.size + 1};
    EXPECT_EQ(errorCode([&] { store->createFile(alice, key("/f"), {wrongSize}, 1, 1); }), 162);

    Entry e = store->createFile(alice, key("/x/f"), {mine, mine}, 1, 1);
    EXPECT_EQ(e.size, 2 * mine.size);
    auto parts = store->fileParts(e.id, 0);
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[1].offset, mine.size);
    EXPECT_TRUE(store->accountReferencesPart(alice, mine.fingerprint));
    EXPECT_FALSE(store->accountReferencesPart(bob, mine.fingerprint));
}

TEST_F(MetadataStore_, ReplacingAFileGivesANewVersionAndKeepsTheOldOneReachable) {
    Entry v1 = file("/doc");
    Entry v2 = store->createFile(alice, key("/doc"), {}, 3000, 3000);
    EXPECT_NE(v1.id, v2.id);
    EXPECT_EQ(v2.size, 0u);
    EXPECT_EQ(store->entryByKey(alice, key("/doc"))->id, v2.id);
    EXPECT_TRUE(store->entryById(alice, v1.id));
    EXPECT_FALSE(store->entryById(bob, v1.id));
    EXPECT_EQ(store->children(alice, "", "", true, 100).size(), 1u);
}

TEST_F(MetadataStore_, CreatingInADeletedFolderRevivesOnlyThePath) {
    file("/d/old");
    store->softDelete(alice, key("/d"), 5000);
    file("/d/new");
    EXPECT_EQ(store->entryByKey(alice, key("/d"))->deleted, 0);
    EXPECT_EQ(store->entryByKey(alice, key("/d/old"))->deleted, 5000);
    // A file over a deleted folder replaces the folder and its deleted contents.
    file("/e/x");
    store->softDelete(alice, key("/e"), 5000);
    Entry f = file("/e");
    EXPECT_FALSE(f.folder);
    EXPECT_FALSE(store->entryByKey(alice, key("/e/x")));
}
