// The part transfer: a missing file, the download buffer, and uploads and
// downloads over several connections against a real zarnu-cloud (skipped
// when that program is not built beside the tests).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "CloudSync/Codes.h"
#include "CloudSync/Transfer/YPartDownloader.h"
#include "CloudSync/Transfer/YPartUploader.h"
#include "CloudSync/Transfer/YPartsBuffer.h"
#include "CloudSync/YCloudApi.h"
#include "cloud_service_support.h"
#include "qel_test_support.h"

namespace {

using CloudSync::PartList;
using CloudSync::YCloudApi;
using qel_test::CodeOf;
using qel_test::TempFolder;

constexpr size_t kMiB = 1048576;

std::string Pattern(size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1664525u + 1013904223u;
    bytes[i] = static_cast<char>(x >> 24);
  }
  return bytes;
}

// How files are cut into fingerprinted mebibytes is checked through zarnucmd put
// (transfer_e2e compares every part's fingerprint and size).
TEST(FingerprintFile, AMissingFileIsTheSystemsError) {
  CloudSync::RegisterErrorCodes();
  TempFolder folder;
  EXPECT_EQ(CodeOf([&] { CloudSync::FingerprintFile(folder.Path() + "/missing"); }), static_cast<unsigned>(ENOENT));
}

// Answers arrive in pieces cut anywhere, the manifest line included; the bytes
// after it start on a page boundary and the memory stays from one answer to
// the next.
TEST(PartsBuffer, SplitsTheManifestFromPageAlignedBytesWhereverThePiecesEnd) {
  CloudSync::YPartsBuffer buffer;
  const std::string manifest = R"({"parts":[]})";
  const std::string answer = manifest + "\n" + Pattern(3 * 4096 + 5, 9);
  const unsigned char *first_block = nullptr;
  for (size_t cut : {size_t{1}, size_t{5}, manifest.size(), manifest.size() + 1, size_t{5000}}) {
    buffer.Clear();
    buffer.Begin();
    for (size_t at = 0; at < answer.size(); at += cut) {
      buffer.Append(answer.data() + at, std::min(cut, answer.size() - at));
    }
    ASSERT_TRUE(buffer.ManifestEnded()) << cut;
    EXPECT_EQ(buffer.Manifest(), manifest) << cut;
    ASSERT_EQ(buffer.AnswerBytes(), answer.size() - manifest.size() - 1) << cut;
    buffer.Record("f", buffer.AnswerStart(), buffer.AnswerBytes());
    size_t size = 0;
    const unsigned char *bytes = buffer.Find("f", size);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes) % CloudSync::YPartsBuffer::kAlignment, 0u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(bytes), size), answer.substr(manifest.size() + 1));
    if (first_block == nullptr) first_block = bytes;
    EXPECT_EQ(bytes, first_block) << "the block was not reused";
  }
  // A second answer after the first: its bytes follow the first one's.
  buffer.Begin();
  buffer.Append("{}\nxyz", 6);
  EXPECT_EQ(buffer.AnswerStart(), answer.size() - manifest.size() - 1);
  EXPECT_EQ(buffer.AnswerText(), "{}\nxyz");
  // A manifest line longer than any real one stops the buffer, it does not grow without end.
  buffer.Clear();
  buffer.Begin();
  const std::string endless(100 * 1024, 'x');
  buffer.Append(endless.data(), endless.size());
  EXPECT_TRUE(buffer.Overflowed());
}

class TransferService : public ::testing::Test {
 protected:
  void SetUp() override {
    CloudSync::RegisterErrorCodes();
    service_ = std::make_unique<zarnu_test::CloudService>();
    // A service that cannot start is a failure, never a skip that would count as a pass.
    if (service_->Url().empty()) GTEST_FAIL() << "zarnu-cloud did not start: it must be built beside the tests";
    for (int i = 0; i < 3; ++i) {
      apis_.push_back(std::make_unique<YCloudApi>("transfer_test", service_->Url()));
      apis_.back()->Login("parts", "part pass");
    }
  }
  std::vector<YCloudApi *> Two() { return {apis_[1].get(), apis_[2].get()}; }

  std::unique_ptr<zarnu_test::CloudService> service_;
  std::vector<std::unique_ptr<YCloudApi>> apis_;
  TempFolder folder_;
};

TEST_F(TransferService, TwoConnectionsEachWayGiveTheSameBytesAndSendOnlyWhatIsMissing) {
  // Seven full parts and a short one: batches of five go out on both
  // connections; the download's 1 MiB batches come back on both.
  std::string bytes = Pattern(7 * kMiB + 12345, 7);
  bytes.replace(3 * kMiB, kMiB, bytes.substr(0, kMiB));  // a part that repeats the first
  const std::string file = folder_.Write("big.bin", bytes);

  CloudSync::YPartUploader uploader(Two());
  size_t sent = 0;
  uint64_t reported = 0;
  uint64_t last_done = 0;
  auto count = [&](const CloudSync::TransferProgress &p) {
    sent += p.partsSent;
    reported += p.bytes;
    EXPECT_GE(p.done, last_done);
    last_done = p.done;
    EXPECT_EQ(p.total, bytes.size());
  };
  const PartList parts = uploader.Upload(file, count);
  EXPECT_EQ(parts.size(), 8u);
  EXPECT_EQ(sent, 7u);  // the repeated part travels once
  EXPECT_EQ(reported, bytes.size());
  const CloudSync::MetadataPtr created = apis_[0]->CreateFile("/big.bin", parts);
  EXPECT_EQ(created->size, bytes.size());

  sent = 0;
  reported = 0;
  last_done = 0;
  EXPECT_EQ(uploader.Upload(file, count).size(), 8u);
  EXPECT_EQ(sent, 0u);

  YCloudApi::ListParam param;
  param.path = "/big.bin";
  param.includeParts = true;
  param.partLimit = 0;
  const CloudSync::MetadataPtr listed = apis_[0]->ListPath(param).entries.at(0);
  const std::string target = folder_.Path() + "/down.bin";
  const int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  ASSERT_GE(fd, 0);
  CloudSync::YPartDownloader(Two()).Download(*listed, fd);
  ::close(fd);
  std::ifstream in(target, std::ios::binary);
  const std::string got((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_TRUE(got == bytes) << "downloaded " << got.size() << " bytes of " << bytes.size();
}

TEST_F(TransferService, AFileChangedWhileSentOrACancelStopsTheUpload) {
  const std::string file = folder_.Write("moving.bin", Pattern(12 * kMiB, 3));
  CloudSync::YPartUploader uploader(Two());
  // Cut short after the first batch: the next batch's parts are gone.
  EXPECT_EQ(CodeOf([&] {
              uploader.Upload(file, [&](const CloudSync::TransferProgress &) { ::truncate(file.c_str(), kMiB); });
            }),
            CloudSync::kFileChangedWhileRead);

  const std::string other = folder_.Write("other.bin", Pattern(12 * kMiB, 4));
  EXPECT_EQ(CodeOf([&] { uploader.Upload(other, {}, [] { return true; }); }), CloudSync::kTransferCancelled);

  // A listing whose parts fall short of the size never makes a short file.
  CloudSync::MetadataInfo entry;
  entry.id = 1;
  entry.path = "/short";
  entry.size = 10;
  const int fd = ::open((folder_.Path() + "/short").c_str(), O_WRONLY | O_CREAT, 0644);
  EXPECT_EQ(CodeOf([&] { CloudSync::YPartDownloader(Two()).Download(entry, fd); }), CloudSync::kPartsMissing);
  ::close(fd);
}

}  // namespace
