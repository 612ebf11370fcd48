#include "ApiError.h"
#include "Lister.h"
#include "StoreFixture.h"

using namespace zarnu::cloud;
using zarnu::cloud::test::StoreFixture;

namespace {

class Lister_ : public StoreFixture {
protected:
    std::vector<std::string> paths(const ListPage& page) {
        std::vector<std::string> out;
        for (const auto& e : page.entries) out.push_back(CloudPath::pathOfKey(e.entry.key));
        return out;
    }
    ListPage list(ListRequest r) { return Lister(*store).list(alice, r); }
};

}  // namespace

// The head on every page and the children across pages are checked through the service
// (test_listing); here, the page boundary.
TEST_F(Lister_, AFolderThatFillsOnePageExactlyHasNoSecondPage) {
    for (int i = 0; i < 7; ++i) file("/d/f" + std::to_string(i));
    ListRequest r;
    r.path = "/d";
    r.pageSize = 7;
    ListPage exact = list(r);
    EXPECT_EQ(exact.entries.size(), 8u);
    EXPECT_EQ(exact.entries[0].entry.contained, 7u);
    EXPECT_FALSE(exact.more);
    r.pageSize = 6;
    EXPECT_TRUE(list(r).more);
}

TEST_F(Lister_, WildCardsExpandPerComponentAndPage) {
    file("/docs1/f1.txt");
    file("/docs1/f22.txt");
    file("/docs2/f3.txt");
    file("/docs2/sub/deep.txt");
    file("/other/f4.txt");
    ListRequest r;
    r.path = "/docs*/f?.txt";
    EXPECT_EQ(paths(list(r)), (std::vector<std::string>{"/docs1/f1.txt", "/docs2/f3.txt"}));
    r.path = "/docs?";
    r.recurse = true;
    r.pageSize = 3;
    ListPage first = list(r);
    EXPECT_EQ(paths(first), (std::vector<std::string>{"/docs1", "/docs1/f1.txt", "/docs1/f22.txt"}));
    ASSERT_TRUE(first.more);
    r.cursor = first.cursor;
    ListPage second = list(r);
    EXPECT_EQ(paths(second), (std::vector<std::string>{"/docs2", "/docs2/f3.txt", "/docs2/sub"}));
    r.cursor = second.cursor;
    ListPage third = list(r);
    EXPECT_EQ(paths(third), (std::vector<std::string>{"/docs2/sub/deep.txt"}));
    EXPECT_FALSE(third.more);
}

TEST_F(Lister_, FilterMatchesWholeNamesWithoutAHead) {
    file("/p/report.txt");
    file("/p/report.txt.bak");
    file("/p/q/notes.txt");
    ListRequest r;
    r.path = "/p";
    r.filter = R"(.*\.txt)";
    EXPECT_EQ(paths(list(r)), (std::vector<std::string>{"/p/report.txt"}));
    r.recurse = true;
    EXPECT_EQ(paths(list(r)), (std::vector<std::string>{"/p/q/notes.txt", "/p/report.txt"}));
    r.filter = ".*";
    r.path = "/p/*";
    EXPECT_THROW(list(r), ApiError);
}

TEST_F(Lister_, PartsAreListedUpToTheLimit) {
    PartRef a = held(alice, "aaa"), b = held(alice, "bb");
    store->createFile(alice, key("/f"), {a, b, a}, 1, 1);
    ListRequest r;
    r.path = "/f";
    r.includeParts = true;
    r.partLimit = 2;
    ListPage page = list(r);
    ASSERT_EQ(page.entries.size(), 1u);
    EXPECT_EQ(page.entries[0].entry.partCount, 3u);
    ASSERT_EQ(page.entries[0].parts.size(), 2u);
    EXPECT_EQ(page.entries[0].parts[1].offset, 3u);
}

TEST_F(Lister_, RefusesBadRequests) {
    ListRequest r;
    r.path = "/";
    r.cursor = "not-a-cursor";
    EXPECT_THROW(list(r), ApiError);
    r.cursor = "";
    r.pageSize = 0;
    EXPECT_THROW(list(r), ApiError);
    r.pageSize = 10;
    r.path = "/../etc";
    EXPECT_THROW(list(r), ApiError);
    EXPECT_EQ(Lister::decodeCursor(Lister::encodeCursor(std::string("\x01" "a\xff", 3))), std::string("\x01" "a\xff", 3));
}
