#include "ApiError.h"
#include "CloudPath.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace zarnu::cloud;

namespace {

bool refused(std::string_view path) {
    try {
        CloudPath::parse(path);
        return false;
    } catch (const ApiError& e) {
        return e.code() == ErrorCode::BadInput;
    }
}

}  // namespace

TEST(CloudPath, SplitsValidPaths) {
    EXPECT_TRUE(CloudPath::parse("/").empty());
    EXPECT_EQ(CloudPath::parse("/a/b c/d.txt"), (std::vector<std::string>{"a", "b c", "d.txt"}));
    EXPECT_EQ(CloudPath::parse("/\xC3\xA9t\xC3\xA9/*?"), (std::vector<std::string>{"\xC3\xA9t\xC3\xA9", "*?"}));
    EXPECT_EQ(CloudPath::parse("/...").front(), "...");
    EXPECT_EQ(CloudPath::join(CloudPath::parse("/x/y")), "/x/y");
}

TEST(CloudPath, RefusesPathsThatCouldEscapeOrConfuse) {
    for (std::string_view bad : {"", "a/b", "//", "/a/", "/a//b", "/..", "/a/../b", "/.", "/a/./b", "/a\\b",
                                 "/a\tb", "/a\x7f", "/\xC0\xAF", "/\xED\xA0\x80", "/\xF4\x90\x80\x80", "/\xE2\x82"})
        EXPECT_TRUE(refused(bad)) << "accepted: " << bad;
    EXPECT_TRUE(refused(std::string_view("/a\0b", 4)));
    EXPECT_TRUE(refused("/" + std::string(256, 'x')));
    EXPECT_FALSE(refused("/" + std::string(255, 'x')));
    std::string deep;
    for (int i = 0; i < 257; ++i) deep += "/d";
    EXPECT_TRUE(refused(deep));
}

TEST(CloudPath, KeysOrderParentsBeforeChildrenAndSiblingsByName) {
    std::vector<std::string> paths = {"/b", "/a b", "/a/y", "/a", "/a/x", "/a/x/z", "/"};
    std::vector<std::string> keys;
    for (const auto& p : paths) keys.push_back(CloudPath::keyOf(CloudPath::parse(p)));
    std::sort(keys.begin(), keys.end());
    std::vector<std::string> ordered;
    for (const auto& k : keys) ordered.push_back(CloudPath::pathOfKey(k));
    EXPECT_EQ(ordered, (std::vector<std::string>{"/", "/a", "/a/x", "/a/x/z", "/a/y", "/a b", "/b"}));
}

TEST(CloudPath, DescendantRangeCoversExactlyTheSubtree) {
    const std::string a = CloudPath::keyOf({"a"});
    const std::string end = CloudPath::descendantsEnd(a);
    for (const char* inside : {"/a/x", "/a/x/y"}) {
        std::string k = CloudPath::keyOf(CloudPath::parse(inside));
        EXPECT_TRUE(k > a && k < end) << inside;
        EXPECT_TRUE(CloudPath::isDescendant(k, a)) << inside;
    }
    for (const char* outside : {"/a", "/ab", "/a b", "/b", "/"}) {
        std::string k = CloudPath::keyOf(CloudPath::parse(outside));
        EXPECT_FALSE(k > a && k < end) << outside;
        EXPECT_FALSE(CloudPath::isDescendant(k, a)) << outside;
    }
    EXPECT_EQ(CloudPath::parentKey(CloudPath::keyOf({"a", "b"})), a);
    EXPECT_EQ(CloudPath::parentKey(a), "");
}
