// Path helpers, path maps, file contents, YFile and the folder walk.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "Qel/Environment/Environment.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/File/YFile.h"
#include "Qel/File/YFileEnum.h"
#include "qel_test_support.h"

namespace {

using Qel::YString;
using qel_test::Raised;
using Qel::Exception::YError;
namespace F = Qel::File;

TEST(QelPaths, ComponentHelpers) {
  EXPECT_EQ(F::AppendPaths("/a", "b"), "/a/b");
  EXPECT_EQ(F::AppendPaths("/a/", "/b"), "/a/b");
  EXPECT_EQ(F::AppendPaths("/a/", "b"), "/a/b");
  EXPECT_EQ(F::AppendPaths("", "b"), "b");
  EXPECT_EQ(F::AppendPaths("a", ""), "a");
  EXPECT_EQ(F::AppendPaths("a", "b", "\\"), "a\\b");

  EXPECT_EQ(F::GetFileFromPath("/a/b"), "b");
  EXPECT_EQ(F::GetFileFromPath("/a/b/"), "b");
  EXPECT_EQ(F::GetFileFromPath("b"), "b");
  EXPECT_EQ(F::GetFileFromPath("/"), "");

  EXPECT_EQ(F::RemoveFileFromPath("/a/b"), "/a");
  EXPECT_EQ(F::RemoveFileFromPath("/a/b/"), "/a");
  EXPECT_EQ(F::RemoveFileFromPath("/a"), "/");
  EXPECT_EQ(F::RemoveFileFromPath("a"), "");
  EXPECT_EQ(F::RemoveFileFromPath("a/b"), "a");
  EXPECT_EQ(F::RemoveFileFromPath("/"), "/");

  EXPECT_TRUE(F::IsPathWithinPath("/a/b", "/a/b", false));
  EXPECT_TRUE(F::IsPathWithinPath("/a/b/c", "/a/b/", false));
  EXPECT_TRUE(F::IsPathWithinPath("/a/b/", "/a/b", false));
  EXPECT_FALSE(F::IsPathWithinPath("/a/bc", "/a/b", false));
  EXPECT_FALSE(F::IsPathWithinPath("/a", "/a/b", false));
  EXPECT_FALSE(F::IsPathWithinPath("/A/B/c", "/a/b", false));
  EXPECT_TRUE(F::IsPathWithinPath("/A/B/c", "/a/b", true));
  EXPECT_TRUE(F::IsPathWithinPath("/x", "/", false));
  EXPECT_FALSE(F::IsPathWithinPath("x", "/", false));

  EXPECT_EQ(F::ConvertToOsPathSep("a\\b\\c"), "a/b/c");
}

TEST(QelPaths, PathMaps) {
  EXPECT_EQ(F::GetPathMap(3), F::RemoveFileFromPath(Qel::Environment::GetPathToSelf()));
  EXPECT_FALSE(F::GetPathMap(3).empty());
  EXPECT_EQ(F::GetPathMap(777), "");
  F::SetPathMap(778, "/data/zarnu");
  EXPECT_EQ(F::GetPathName(778, "config.db"), "/data/zarnu/config.db");
  F::SetPathMap(3, "/elsewhere");
  EXPECT_EQ(F::GetPathMap(3), "/elsewhere");
}

class QelFiles : public testing::Test {
 protected:
  YString Path(const char* rel) const { return F::AppendPaths(root_, rel); }
  qel_test::TempFolder folder_{"qel_file"};
  const YString root_ = folder_.Path();
};

TEST_F(QelFiles, CreatePathContentsAndInfo) {
  F::CreatePath(Path("x/y/z"), true);
  F::CreatePath(Path("x/y/z/"), true);  // existing folders are fine
  F::CreatePath(Path("p/q/file.txt"), false);
  EXPECT_TRUE(F::DoesFileExist(Path("p/q")));
  EXPECT_FALSE(F::DoesFileExist(Path("p/q/file.txt")));

  F::YFileInfo info;
  ASSERT_TRUE(F::GetFileInfo(Path("x/y"), info));
  EXPECT_EQ(info.attributes, F::kAttributeFolder);
  EXPECT_TRUE(info.IsFolder());
  EXPECT_FALSE(F::GetFileInfo(Path("missing"), info));

  F::PutContents(Path("p/q/file.txt"), "hello world");
  F::PutContents(Path("p/q/file.txt"), "W", 6);  // in place
  EXPECT_EQ(F::GetContents(Path("p/q/file.txt")), "hello World");
  F::PutContents(Path("p/q/file.txt"), "new");  // offset 0 truncates
  EXPECT_EQ(F::GetContents(Path("p/q/file.txt")), "new");
  ASSERT_TRUE(F::GetFileInfo(Path("p/q/file.txt"), info));
  EXPECT_EQ(info.size, 3u);
  EXPECT_FALSE(info.IsFolder());
  EXPECT_GT(info.modified, 0);

  const std::string big(200000, 'b');
  F::PutContents(Path("big"), big);
  EXPECT_EQ(F::GetContents(Path("big")), big);

  YError e = Raised([&] { F::GetContents(Path("missing")); });
  EXPECT_EQ(e.GetSubCode(), Qel::Exception::kOsErrorSubCode);
  EXPECT_EQ(e.GetCcode(), static_cast<unsigned int>(ENOENT));
  EXPECT_EQ(e.GetLogType(), 43u);
  EXPECT_EQ(e.GetInfo(), Path("missing"));
  e = Raised([&] { F::CreatePath(Path("p/q/file.txt/sub"), true); });
  EXPECT_EQ(e.GetCcode(), static_cast<unsigned int>(ENOTDIR));
}

TEST_F(QelFiles, YFileModes) {
  const YString path = Path("f.bin");
  const unsigned char data[] = {'a', 'b', 'c', 'd', 'e'};
  {
    F::YFile f;
    f.Open(path, F::YFile::kWrite | F::YFile::kCreateNew);
    f.Write(data, 5);
    EXPECT_EQ(f.GetOffset(), 5u);
    f.Sync();
  }
  F::YFile again;
  YError e = Raised([&] { again.Open(path, F::YFile::kWrite | F::YFile::kCreateNew); });
  EXPECT_EQ(e.GetCcode(), static_cast<unsigned int>(EEXIST));
  EXPECT_EQ(e.GetSubCode(), Qel::Exception::kOsErrorSubCode);
  EXPECT_FALSE(again.IsOpen());
  EXPECT_EQ(F::GetContents(path), "abcde");  // untouched

  F::YFile r;
  r.Open(path, F::YFile::kRead);
  EXPECT_EQ(r.GetSize(), 5u);
  ASSERT_EQ(r.ReadEx(3), 3u);
  EXPECT_EQ(r.GetBuffer().At(2), 'c');
  ASSERT_EQ(r.ReadEx(10), 2u);
  EXPECT_EQ(r.GetBuffer().GetCount(), 2u);
  EXPECT_EQ(r.GetBuffer().At(0), 'd');
  EXPECT_EQ(r.ReadEx(10), 0u);
  r.Close();
  EXPECT_FALSE(r.IsOpen());

  F::YFile a;
  a.Open(path, F::YFile::kWrite | F::YFile::kAppend);
  a.Write(data, 2);
  a.Close();
  EXPECT_EQ(F::GetContents(path), "abcdeab");
  F::YFile t;
  t.Open(path, F::YFile::kWrite | F::YFile::kTruncate);
  t.Close();
  EXPECT_EQ(F::GetContents(path), "");
  EXPECT_THROW(t.Open(Path("none"), F::YFile::kRead), YError);
}

TEST_F(QelFiles, EnumOrderRecursionAndPattern) {
  F::CreatePath(Path("b/inner"), true);
  F::PutContents(Path("c.txt"), "c");
  F::PutContents(Path("a.txt"), "a");
  F::PutContents(Path("b/z.txt"), "z");
  F::PutContents(Path("b/inner/y.dat"), "y");
  std::vector<YString> seen;
  auto collect = [&](const F::YFileEnumEntry& e) {
    seen.push_back(YString(e.path.substr(root_.size() + 1)) + (e.info.IsFolder() ? "/" : ""));
    EXPECT_EQ(e.name, F::GetFileFromPath(e.path));
    return F::EnumResult::kContinue;
  };
  EXPECT_EQ(qel_file_enum(root_, ".*", 0, collect), 0);
  EXPECT_EQ(seen, (std::vector<YString>{"a.txt", "b/", "c.txt"}));
  seen.clear();
  EXPECT_EQ(qel_file_enum(root_, ".*", F::kEnumRecursive, collect), 0);
  EXPECT_EQ(seen, (std::vector<YString>{"a.txt", "b/", "b/inner/", "b/inner/y.dat", "b/z.txt", "c.txt"}));
  seen.clear();
  EXPECT_EQ(qel_file_enum(root_, ".*\\.txt", F::kEnumRecursive, collect), 0);
  EXPECT_EQ(seen, (std::vector<YString>{"a.txt", "b/z.txt", "c.txt"}));  // ".txt" whole-name only
  seen.clear();
  EXPECT_EQ(qel_file_enum(root_, "txt", F::kEnumRecursive, collect), 0);
  EXPECT_TRUE(seen.empty());

  int calls = 0;
  EXPECT_EQ(qel_file_enum(root_, ".*", F::kEnumRecursive,
                          [&](const F::YFileEnumEntry&) { return ++calls == 2 ? F::EnumResult::kStop
                                                                              : F::EnumResult::kContinue; }),
            0);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(qel_file_enum(Path("missing"), ".*", 0, collect), ENOENT);

  // Links back up the tree are reported, not walked again: the walk ends.
  ASSERT_EQ(::symlink("..", Path("b/inner/up").c_str()), 0);
  ASSERT_EQ(::symlink("../..", Path("b/inner/top").c_str()), 0);
  ASSERT_EQ(::symlink("inner", Path("b/side").c_str()), 0);
  seen.clear();
  EXPECT_EQ(qel_file_enum(root_, ".*", F::kEnumRecursive,
                          [&](const F::YFileEnumEntry& e) {
                            collect(e);
                            return seen.size() < 100 ? F::EnumResult::kContinue : F::EnumResult::kStop;
                          }),
            0);
  EXPECT_EQ(seen, (std::vector<YString>{"a.txt", "b/", "b/inner/", "b/inner/top/", "b/inner/up/", "b/inner/y.dat",
                                        "b/side/", "b/side/top/", "b/side/up/", "b/side/y.dat", "b/z.txt", "c.txt"}));
  EXPECT_EQ(qel_file_enum(root_, "(", 0, collect), EINVAL);
}

}  // namespace
