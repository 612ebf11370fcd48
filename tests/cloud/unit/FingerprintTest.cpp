#include "ApiError.h"
#include "Fingerprint.h"
#include "PartBatch.h"

#include <gtest/gtest.h>

using namespace zarnu::cloud;

TEST(Fingerprint, IsMd5ThenSha1InLowerCaseHex) {
    // Published MD5 and SHA-1 digests of "abc".
    EXPECT_EQ(Fingerprint::of("abc"),
              "900150983cd24fb0d6963f7d28e17f72"
              "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(Fingerprint::of("").size(), Fingerprint::kLength);
}

TEST(Fingerprint, VerifiesBytesAndRejectsMalformedNames) {
    const std::string bytes(4096, 'z');
    const std::string fp = Fingerprint::of(bytes);
    EXPECT_TRUE(Fingerprint::matches(fp, bytes));
    std::string flipped = bytes;
    flipped[4095] = 'y';
    EXPECT_FALSE(Fingerprint::matches(fp, flipped));

    std::string upper = fp;
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    EXPECT_FALSE(Fingerprint::isWellFormed(upper));
    EXPECT_FALSE(Fingerprint::matches(upper, bytes));
    EXPECT_FALSE(Fingerprint::isWellFormed(fp.substr(0, 71)));
    EXPECT_FALSE(Fingerprint::isWellFormed(fp + "0"));
    EXPECT_FALSE(Fingerprint::isWellFormed(std::string(71, 'a') + "g"));
}

TEST(PartBatch, SplitsAnUploadBodyIntoItsParts) {
    const std::string one = "first part", two(1000, 'x');
    const std::string body = PartBatch::makeUpload({one, two});
    auto parts = PartBatch::parseUpload(body);
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[0].bytes, one);
    EXPECT_EQ(parts[1].bytes, two);
    EXPECT_EQ(parts[1].fingerprint, Fingerprint::of(two));
}

TEST(PartBatch, RefusesMalformedBodies) {
    auto code = [](const std::string& body) {
        try {
            PartBatch::parseUpload(body);
            return 0;
        } catch (const ApiError& e) {
            return static_cast<int>(e.code());
        }
    };
    const std::string good = PartBatch::makeUpload({"abc"});
    EXPECT_EQ(code(good + "x"), 55);                  // trailing bytes
    EXPECT_EQ(code(good.substr(0, good.size() - 1)), 55);  // short body
    EXPECT_EQ(code("abc"), 55);                       // no manifest line
    EXPECT_EQ(code("[]\n"), 55);
    EXPECT_EQ(code(R"({"parts":[]})" "\n"), 55);
    EXPECT_EQ(code(R"({"parts":[{"fingerprint":"00","size":1}]})" "\nx"), 55);
    const std::string fp = Fingerprint::of("a");
    EXPECT_EQ(code(R"({"parts":[{"fingerprint":")" + fp + R"(","size":0}]})" "\n"), 55);
    EXPECT_EQ(code(R"({"parts":[{"fingerprint":")" + fp + R"(","size":1048577}]})" "\n"), 55);
    EXPECT_EQ(code(PartBatch::makeUpload({"1", "2", "3", "4", "5", "6"})), 175);
    EXPECT_EQ(code(PartBatch::makeUpload({"1", "2", "3", "4", "5"})), 0);
}
