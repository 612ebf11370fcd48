// The cloud client: its wire formats (error answers, entries, the parts
// upload body, the parts download answer with its fingerprint checks), and its
// calls against a real zarnu-cloud started from the same bin folder (skipped
// when that program is not built).
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "CloudSync/Codes.h"
#include "cloud_service_support.h"
#include "CloudSync/YCloudApi.h"
#include "Qel/JSON/YObject.h"
#include "Qel/JSON/YValue.h"
#include "qel_test_support.h"

namespace {

using CloudSync::PartInfo;
using CloudSync::PartList;
using CloudSync::PartPtr;
using CloudSync::YCloudApi;
using Qel::Exception::YError;
using qel_test::CodeOf;
using zarnu_test::CloudService;

const unsigned char* Bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

PartPtr MakePart(const std::string& bytes, bool withData) {
  auto p = std::make_shared<PartInfo>();
  p->fingerprint = YCloudApi::ComputeFingerprint(Bytes(bytes), bytes.size());
  p->size = static_cast<uint32_t>(bytes.size());
  if (withData) p->data.Assign(Bytes(bytes), bytes.size());
  return p;
}

std::string Item(const std::string& fingerprint, size_t size, const char* status) {
  return R"({"fingerprint":")" + fingerprint + R"(","size":)" + std::to_string(size) + R"(,"status":")" + status +
         R"("})";
}

TEST(CloudApiErrors, ServiceErrorObjectKeepsCodeAndMessage) {
  CloudSync::RegisterErrorCodes();
  YError e = YCloudApi::AnswerError(
      404, R"({"error":{"code":174,"message":"The file specified does not exist: /a/b.txt"}})", "http://x/", "F");
  EXPECT_EQ(e.GetCcode(), 174u);
  EXPECT_EQ(e.GetLogType(), 213u);
  EXPECT_EQ(e.GetInfo(), "The file specified does not exist: /a/b.txt");

  // A message that repeats the code's text is not shown twice.
  e = YCloudApi::AnswerError(401, R"({"error":{"code":191,"message":"Incorrect username or password"}})", "u", "F");
  EXPECT_EQ(e.GetCcode(), 191u);
  EXPECT_EQ(e.GetSummary(), "Incorrect username or password (error 191)");
}

TEST(CloudApiErrors, AnythingElseIsAMalformedAnswerNamingStatusAndAddress) {
  for (const char* body : {"<html>Bad gateway</html>", "", R"({"error":"text"})", R"({"error":{"code":0}})"}) {
    YError e = YCloudApi::AnswerError(502, body, "https://h:1/api/v1/list", "F");
    EXPECT_EQ(e.GetCcode(), 161u) << body;
    EXPECT_NE(e.GetInfo().find("502"), std::string::npos);
    EXPECT_NE(e.GetInfo().find("https://h:1/api/v1/list"), std::string::npos);
  }
}

TEST(CloudApiEntries, ReadsFilesFoldersAndParts) {
  Qel::JSON::YObject folder = Qel::JSON::ParseObject(
      R"({"id":2,"path":"/docs","name":"docs","is_folder":true,"attributes":16,"size":0,"modified":5,)"
      R"("deleted":1700000000,"contained":3,"part_count":0})");
  CloudSync::MetadataPtr f = YCloudApi::ReadEntry(folder);
  EXPECT_TRUE(f->IsFolder());
  EXPECT_TRUE(f->IsDeleted());
  EXPECT_EQ(f->contained, 3u);

  Qel::JSON::YObject file = Qel::JSON::ParseObject(
      R"({"id":42,"path":"/docs/r.txt","attributes":0,"size":1048586,"modified":1,"deleted":0,"part_count":2,)"
      R"("parts":[{"fingerprint":"aa","size":1048576,"offset":0},{"fingerprint":"bb","size":10,"offset":1048576}]})");
  CloudSync::MetadataPtr r = YCloudApi::ReadEntry(file);
  EXPECT_FALSE(r->IsFolder());
  EXPECT_FALSE(r->IsDeleted());
  EXPECT_EQ(r->id, 42u);
  EXPECT_EQ(r->size, 1048586u);
  ASSERT_EQ(r->parts.size(), 2u);
  EXPECT_EQ(r->parts.back()->fingerprint, "bb");
  EXPECT_EQ(r->parts.back()->offset, 1048576u);

  EXPECT_EQ(CodeOf([] { YCloudApi::ReadEntry(Qel::JSON::ParseObject(R"({"id":1,"size":0})")); }), 161u);
}

TEST(CloudApiUpload, BodyIsOneManifestLineThenTheBytesInOrder) {
  const std::vector<PartPtr> parts{MakePart("first part", true), MakePart(std::string("\n\0x", 3), true)};
  const std::string body = YCloudApi::BuildUploadBody(parts);
  const size_t line_end = body.find('\n');
  ASSERT_NE(line_end, std::string::npos);
  EXPECT_EQ(body.substr(line_end + 1), std::string("first part") + std::string("\n\0x", 3));
  Qel::JSON::YArray manifest = Qel::JSON::ParseObject(body.substr(0, line_end)).Get<Qel::JSON::YArray>("parts", 0);
  ASSERT_EQ(manifest.size(), 2u);
  EXPECT_EQ(manifest[1]->AsObject().Get<Qel::YString>("fingerprint", 0), parts[1]->fingerprint);
  EXPECT_EQ(manifest[1]->AsObject().Get<unsigned long long>("size", 0), 3u);
}

class CloudApiDownload : public ::testing::Test {
 protected:
  PartPtr a_ = MakePart("alpha bytes", false);
  PartPtr b_ = MakePart("bravo", false);
  PartPtr a_again_ = MakePart("alpha bytes", false);  // the same part later in the file
  PartList batch_{a_, b_, a_again_};
  std::vector<Qel::YString> asked_{a_->fingerprint, b_->fingerprint};
};

TEST_F(CloudApiDownload, FillsEveryPartCarryingAnOkFingerprintAndReturnsLater) {
  const std::string body =
      R"({"parts":[)" + Item(a_->fingerprint, 11, "ok") + "," + Item(b_->fingerprint, 0, "later") + "]}\nalpha bytes";
  size_t filled = 0;
  std::vector<Qel::YString> later = YCloudApi::ReadPartsAnswer(asked_, body, batch_, filled);
  EXPECT_EQ(filled, 2u);
  EXPECT_EQ(later, std::vector<Qel::YString>{b_->fingerprint});
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(a_again_->data.Get()), a_again_->data.GetCount()), "alpha bytes");
  EXPECT_TRUE(b_->data.IsEmpty());
}

TEST_F(CloudApiDownload, BytesThatDoNotMatchTheirFingerprintOrSizeFailValidation) {
  size_t filled = 0;
  const std::string wrong_bytes =
      R"({"parts":[)" + Item(a_->fingerprint, 11, "ok") + "," + Item(b_->fingerprint, 5, "ok") + "]}\nalpha bytesBRAVO";
  EXPECT_EQ(CodeOf([&] { YCloudApi::ReadPartsAnswer(asked_, wrong_bytes, batch_, filled); }), 169u);

  // The bytes match the fingerprint, but the file lists the part with another size.
  b_->size = 6;
  const std::string ok_body =
      R"({"parts":[)" + Item(a_->fingerprint, 11, "ok") + "," + Item(b_->fingerprint, 5, "ok") + "]}\nalpha bytesbravo";
  EXPECT_EQ(CodeOf([&] { YCloudApi::ReadPartsAnswer(asked_, ok_body, batch_, filled); }), 169u);
}

TEST_F(CloudApiDownload, MalformedAnswersAndMissingParts) {
  const std::string a_ok = Item(a_->fingerprint, 11, "ok");
  const std::string b_later = Item(b_->fingerprint, 0, "later");
  const std::vector<std::pair<std::string, unsigned int>> cases{
      {R"({"parts":[)" + a_ok + "," + b_later + "]}", 168},                // no line feed
      {R"({"parts":[)" + a_ok + "]}\nalpha bytes", 168},                   // one item for two asked
      {R"({"parts":[)" + b_later + "," + a_ok + "]}\nalpha bytes", 168},   // order differs
      {R"({"parts":[)" + a_ok + "," + b_later + "]}\nalpha", 168},         // ends inside a part
      {R"({"parts":[)" + a_ok + "," + b_later + "]}\nalpha bytes!", 168},  // trailing byte
      {R"({"parts":[)" + a_ok + "," + Item(b_->fingerprint, 0, "gone") + "]}\nalpha bytes", 168},
      {"not json\n", 168},
      {R"({"parts":[)" + a_ok + "," + Item(b_->fingerprint, 0, "missing") + "]}\nalpha bytes", 162},
  };
  for (const auto& [body, code] : cases) {
    size_t filled = 0;
    EXPECT_EQ(CodeOf([&] { YCloudApi::ReadPartsAnswer(asked_, body, batch_, filled); }), code) << body;
  }
}

// ------------------------------------------------------ against the service

class CloudApiService : public ::testing::Test {
 protected:
  void SetUp() override {
    CloudSync::RegisterErrorCodes();
    service_ = std::make_unique<CloudService>();
    // A service that cannot start is a failure, never a skip that would count as a pass.
    if (service_->Url().empty()) GTEST_FAIL() << "zarnu-cloud did not start: it must be built beside the tests";
    api_ = std::make_unique<YCloudApi>("cloud_api_test", service_->Url());
    api_->Login("parts", "part pass");
  }

  std::unique_ptr<CloudService> service_;
  std::unique_ptr<YCloudApi> api_;
};

PartPtr FilledPart(size_t size, unsigned char seed, uint64_t offset) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 31 + seed * 7) & 0xFF);
  PartPtr p = MakePart(bytes, true);
  p->offset = offset;
  return p;
}

TEST_F(CloudApiService, UploadsOnlyLackingPartsAndGetsEveryPartBack) {
  // Nine distinct 1 MiB parts are more than one download answer carries
  // (8 MiB), so some come back "later" and are asked for again.
  PartList parts;
  uint64_t offset = 0;
  for (unsigned char i = 0; i < 9; ++i, offset += 1048576) parts.push_back(FilledPart(1048576, i, offset));
  parts.push_back(FilledPart(1048576, 0, offset));  // the first part again
  parts.push_back(FilledPart(100, 200, offset + 1048576));

  EXPECT_EQ(api_->SendNeededParts(parts, 0), 10u);
  EXPECT_EQ(api_->SendNeededParts(parts, 0), 0u);
  CloudSync::MetadataPtr created = api_->CreateFile("/big/file.bin", parts);
  EXPECT_EQ(created->size, 10u * 1048576 + 100);

  YCloudApi::ListParam param;
  param.path = "/big/file.bin";
  param.includeParts = true;
  param.partLimit = 0;
  YCloudApi::ListResult listed = api_->ListPath(param);
  ASSERT_EQ(listed.entries.size(), 1u);
  const PartList& got = listed.entries[0]->parts;
  ASSERT_EQ(got.size(), parts.size());
  EXPECT_EQ(api_->GetParts(got, listed.entries[0]->id), parts.size());
  EXPECT_EQ(service_->CountLogLines("POST /api/v1/parts/download 200", 2), 2u);
  EXPECT_EQ(service_->CountLogLines("POST /api/v1/parts/upload 200", 2), 2u);  // five parts per request
  auto want = parts.begin();
  for (const PartPtr& p : got) {
    const PartPtr& w = *want++;
    ASSERT_EQ(p->data.GetCount(), w->size);
    EXPECT_EQ(0, std::memcmp(p->data.Get(), w->data.Get(), w->size)) << p->fingerprint;
  }
}

// Logins and removals are refused through zarnucmd in the cloud_cli suite.
TEST_F(CloudApiService, RefusalsCarryTheServiceCodes) {
  PartList unsent{FilledPart(10, 99, 0)};
  EXPECT_EQ(CodeOf([&] { api_->CreateFile("/f", unsent); }), 162u);
  EXPECT_EQ(CodeOf([&] { api_->GetParts(unsent, 123456); }), 174u);
  unsent.front()->data.Resize(5);  // fewer bytes than the part lists
  EXPECT_EQ(CodeOf([&] { api_->SendNeededParts(unsent, 0); }), 186u);

  YCloudApi fresh("cloud_api_test", service_->Url());
  EXPECT_EQ(CodeOf([&] { fresh.ListPath(YCloudApi::ListParam()); }), 177u);  // not logged in
}

}  // namespace
