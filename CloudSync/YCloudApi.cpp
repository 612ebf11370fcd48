#include "CloudSync/YCloudApi.h"


#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>
#include <unordered_set>

#include "CloudSync/YConfigDb.h"
#include "CloudSync/Transfer/YPartsBuffer.h"
#include "CloudSync/YCurlObj.h"
#include "Qel/Crypto/YBbsHash.h"
#include "Qel/File/File.h"
#include "Qel/JSON/YObject.h"
#include "Qel/JSON/YValue.h"
#include "Qel/Log/YLog.h"
#include "Qel/Util/Util.h"

namespace CloudSync {

namespace {

using Qel::YString;
using Qel::Exception::YError;
using Qel::JSON::YArray;
using Qel::JSON::YObject;
using Qel::JSON::YValue;

constexpr const char* kFile = "CloudSync/YCloudApi";
constexpr unsigned int kLogType = 213;      // CSM_CLOUD
constexpr unsigned int kJsonLogType = 220;  // CSM_JSON
constexpr const char* kApiPrefix = "api/v1/";
constexpr long kLongPollMargin = 30;  // seconds a long poll's request may take beyond the wait

constexpr size_t kMaxPartSize = 1048576;
constexpr size_t kUploadBatchParts = 5;
constexpr size_t kDownloadBatchParts = 100;
constexpr size_t kMissingBatchParts = 10000;

// Runs `read` over an answer the service gave with status 200; a field that is
// missing or of the wrong kind becomes 161 naming the endpoint.
template <class F>
auto ReadAnswer(const char* endpoint, const char* function, F&& read) -> decltype(read()) {
  try {
    return read();
  } catch (const YError& e) {
    // Only the runtime's JSON reading failures (not JSON, missing or mistyped
    // field, not a number) are translated; the client's own errors pass.
    if (e.GetCcode() != 55 && e.GetCcode() != 56 && e.GetCcode() != 118) throw;
    QEL_RAISE(kLogType, 161, "Unexpected answer to " + YString(endpoint) + ": " + e.GetInfo(), kFile, function);
  }
}

YValue TextArray(const std::vector<YString>& texts) {
  YArray array;
  array.reserve(texts.size());
  for (const YString& t : texts) array.push_back(std::make_shared<YValue>(t));
  return YValue(std::move(array));
}

uint64_t OptionalNumber(const YObject& o, const char* name) {
  return o.Has(name) ? o.Get<unsigned long long>(name, kLogType) : 0;
}

[[noreturn]] void RaiseMalformedParts(const YString& what, unsigned int line) {
  YError e(kLogType, 168, 0, line, kFile, "ReadPartsAnswer");
  e.SetInfo(what);
  Qel::Exception::Raise(std::move(e));
}

// The distinct fingerprints of `parts`, in order of first appearance.
std::vector<YString> DistinctFingerprints(const PartList& parts) {
  std::vector<YString> out;
  std::unordered_set<YString> seen;
  for (const PartPtr& p : parts) {
    if (p && seen.insert(p->fingerprint).second) out.push_back(p->fingerprint);
  }
  return out;
}


MetadataPtr EntryOf(const YObject& answer, const char* endpoint, const char* function);

}  // namespace

// ------------------------------------------------------------------ set-up

YCloudApi::YCloudApi(const YString& agentName, const YString& address) : agent_name_(agentName), address_(address) {
  if (!address_.EndsWith("/")) address_ += "/";
  curl_ = std::make_unique<YCurlObj>(nullptr, address_, YCurlObj::kKeepAlive);
  if (!Qel::File::GetPathMap(9).empty()) curl_->SetTrust(Qel::File::GetPathName(9, "ca.pem"), true);
}

YCloudApi::~YCloudApi() = default;

void YCloudApi::ApplyConfig(YConfigDb& db) {
  auto seconds = [&](const char* name) -> long {
    const YString text = Qel::Util::Trim(db.GetOption(name, "300"));
    try {
      return Qel::Util::StringToNumber<long>(text);
    } catch (const YError&) {
      QEL_RAISE(kLogType, 55, YString(name) + " is not a number of seconds: " + text, kFile, "ApplyConfig");
    }
  };
  SetTimeouts(seconds("csmCurlTimeout"), seconds("csmCurlConnectTimeout"));

  const YString verify_text = Qel::Util::Trim(db.GetOption("csmSslVerify", "1"));
  bool verify = true;
  try {
    verify = Qel::Util::StringToNumber<bool>(verify_text);
  } catch (const YError&) {
    QEL_RAISE(kLogType, 55, "csmSslVerify must be 0 or 1, not " + verify_text, kFile, "ApplyConfig");
  }
  YString folder = Qel::File::RemoveFileFromPath(db.GetPath());
  const YString ca = folder.empty() ? Qel::File::GetPathName(9, "ca.pem") : Qel::File::AppendPaths(folder, "ca.pem");
  SetTrust(ca, verify);
}

std::unique_ptr<YCloudApi> YCloudApi::Clone() const {
  auto copy = std::make_unique<YCloudApi>(agent_name_, address_);
  copy->curl_->CopySettingsFrom(*curl_);
  copy->token_ = token_;
  return copy;
}

void YCloudApi::SetTimeouts(long totalSeconds, long connectSeconds) {
  curl_->SetTimeouts(totalSeconds, connectSeconds);
}

void YCloudApi::SetTrust(const YString& caFile, bool verify) { curl_->SetTrust(caFile, verify); }

void YCloudApi::SetBandwidthLimits(uint64_t upBytesPerSecond, uint64_t downBytesPerSecond) {
  curl_->SetSpeedLimits(upBytesPerSecond, downBytesPerSecond);
}

// ---------------------------------------------------------------- requests

void YCloudApi::RequireLogin(const char* function) const {
  if (token_.empty()) QEL_RAISE(kLogType, 177, "Not logged in to " + address_, kFile, function);
}

YObject YCloudApi::Call(const char* endpoint, const YObject& request, bool authenticated, const char* function,
                        long timeout) {
  if (authenticated) RequireLogin(function);
  std::map<YString, YString> headers{
      {"Content-Type", "application/json"}, {"Accept", "application/json"}, {"User-Agent", agent_name_}};
  if (authenticated) headers["Authorization"] = "Bearer " + token_;
  const YString body = request.Stringify();
  const bool secret = !authenticated;  // logins carry passwords and tokens
  Qel::Log::YLog& log = Qel::Log::GetGlobalLogger();
  if (!secret && log.IsEnabled(kJsonLogType)) log.Write(kJsonLogType, YString(endpoint) + " request " + body);

  YCurlObj::Response answer = curl_->Post(kApiPrefix + YString(endpoint), headers, body, timeout);
  if (!secret && log.IsEnabled(kJsonLogType)) {
    log.Write(kJsonLogType, YString(endpoint) + " answer " + std::to_string(answer.status) + " " + answer.body);
  }
  if (answer.status != 200)
    Qel::Exception::Raise(
        AnswerError(answer.status, answer.body, curl_->MakeUrl(kApiPrefix + YString(endpoint)), function));
  return ReadAnswer(endpoint, function, [&] { return Qel::JSON::ParseObject(answer.body); });
}

YError YCloudApi::AnswerError(long httpStatus, const std::string& body, const YString& url, const char* function) {
  try {
    const YObject answer = Qel::JSON::ParseObject(body);
    if (answer.Has("error")) {
      const YObject error = answer.Get<YObject>("error", kLogType);
      const unsigned long long code = error.Get<unsigned long long>("code", kLogType);
      if (code != 0 && code <= 0xFFFFFFFFull) {
        YError e(kLogType, static_cast<unsigned int>(code), 0, __LINE__, kFile, function);
        YString message = error.Has("message") ? error.Get<YString>("message", kLogType) : YString();
        // A message that only repeats the code's own text adds nothing.
        if (message == e.GetDescription()) message.clear();
        e.SetInfo(message);
        return e;
      }
    }
  } catch (const YError&) {
    // Not the service's error object: reported below.
  }
  YError e(kLogType, 161, 0, __LINE__, kFile, function);
  e.SetInfo("HTTP status " + std::to_string(httpStatus) + " from " + url);
  return e;
}

// ------------------------------------------------------------------- login

YCloudApi::LoginResult YCloudApi::LoginWith(const YObject& request, const char* function) {
  const YObject answer = Call("login", request, false, function);
  LoginResult result = ReadAnswer("login", function, [&] {
    LoginResult r;
    for (const Qel::JSON::YValuePtr& name : answer.Get<YArray>("usernames", kLogType)) {
      if (name) r.usernames.push_back(name->AsString());
    }
    r.token = answer.Get<YString>("token", kLogType);
    if (answer.Has("account_id")) r.accountId = answer.Get<YString>("account_id", kLogType);
    if (answer.Has("display_name")) r.displayName = answer.Get<YString>("display_name", kLogType);
    return r;
  });
  if (result.token.empty() || result.usernames.empty()) {
    QEL_RAISE(kLogType, 161, "Unexpected answer to login: no token or no user name", kFile, function);
  }
  token_ = result.token;
  return result;
}

YCloudApi::LoginResult YCloudApi::Login(const YString& user, const YString& password) {
  YObject request;
  request.Set("username", YValue(user));
  request.Set("password", YValue(password));
  return LoginWith(request, "Login");
}

YCloudApi::LoginResult YCloudApi::Login(const YString& token) {
  YObject request;
  request.Set("token", YValue(token));
  return LoginWith(request, "Login");
}

// ----------------------------------------------------------------- entries

MetadataPtr YCloudApi::ReadEntry(const YObject& o) {
  return ReadAnswer("an entry", "ReadEntry", [&] {
    auto m = std::make_shared<MetadataInfo>();
    m->id = o.Get<unsigned long long>("id", kLogType);
    m->path = o.Get<YString>("path", kLogType);
    m->size = o.Get<unsigned long long>("size", kLogType);
    m->attributes = static_cast<uint32_t>(OptionalNumber(o, "attributes"));
    if (o.Has("is_folder") && o.Get<bool>("is_folder", kLogType)) m->attributes |= Qel::File::kAttributeFolder;
    m->modified = static_cast<int64_t>(OptionalNumber(o, "modified"));
    m->deleted = static_cast<int64_t>(OptionalNumber(o, "deleted"));
    m->contained = OptionalNumber(o, "contained");
    m->partCount = OptionalNumber(o, "part_count");
    m->changeSeq = OptionalNumber(o, "change_seq");
    if (o.Has("parts")) {
      for (const Qel::JSON::YValuePtr& v : o.Get<YArray>("parts", kLogType)) {
        if (!v || !v->IsObject())
          QEL_RAISE(kLogType, 161, "A part of " + m->path + " is not an object", kFile, "ReadEntry");
        const YObject& p = v->AsObject();
        auto part = std::make_shared<PartInfo>();
        part->fingerprint = p.Get<YString>("fingerprint", kLogType);
        part->size = static_cast<uint32_t>(p.Get<unsigned long long>("size", kLogType));
        part->offset = OptionalNumber(p, "offset");
        m->parts.push_back(std::move(part));
      }
    }
    return m;
  });
}

namespace {

MetadataPtr EntryOf(const YObject& answer, const char* endpoint, const char* function) {
  const YObject entry = ReadAnswer(endpoint, function, [&] { return answer.Get<YObject>("entry", kLogType); });
  return YCloudApi::ReadEntry(entry);
}

}  // namespace

// ------------------------------------------------------------------ listing

YCloudApi::ListResult YCloudApi::ListPath(const ListParam& param) {
  YObject request;
  request.Set("path", YValue(param.path));
  request.Set("filter", YValue(param.filter));
  request.Set("recurse", YValue(param.recurse));
  request.Set("part_limit", YValue(param.partLimit));
  request.Set("page_size", YValue(param.pageSize));
  request.Set("include_excludes", YValue(param.includeExcludes));
  request.Set("include_parts", YValue(param.includeParts));
  request.Set("include_deleted", YValue(param.includeDeleted));
  request.Set("cursor", YValue(param.cursor));
  const YObject answer = Call("list", request, true, "ListPath");

  ListResult result;
  const YArray entries = ReadAnswer("list", "ListPath", [&] {
    result.more = answer.Has("more") && answer.Get<bool>("more", kLogType);
    result.cursor = answer.Has("cursor") ? answer.Get<YString>("cursor", kLogType) : YString();
    return answer.Get<YArray>("entries", kLogType);
  });
  if (result.more && result.cursor.empty()) {
    QEL_RAISE(kLogType, 161, "Unexpected answer to list: more entries but no cursor", kFile, "ListPath");
  }
  for (size_t i = 0; i < entries.size(); ++i) {
    if (!entries[i] || !entries[i]->IsObject()) {
      QEL_RAISE(kLogType, 161, "Unexpected answer to list: an entry is not an object", kFile, "ListPath");
    }
    MetadataPtr entry = ReadEntry(entries[i]->AsObject());
    result.entries.push_back(std::move(entry));
  }
  return result;
}

// -------------------------------------------------------- path operations

YCloudApi::PublicLink YCloudApi::CreatePublicLink(const std::vector<MetadataPtr>& entries) {
  std::list<YString> paths;
  for (const MetadataPtr& e : entries) {
    if (e) paths.push_back(e->path);
  }
  return CreatePublicLink(paths);
}

YCloudApi::PublicLink YCloudApi::CreatePublicLink(const std::list<YString>& paths) {
  std::vector<YString> distinct;
  std::set<YString> seen;
  for (const YString& p : paths) {
    if (seen.insert(p).second) distinct.push_back(p);
  }
  if (distinct.empty()) QEL_RAISE(kLogType, 55, "No path to link", kFile, "CreatePublicLink");
  YObject request;
  request.Set("paths", TextArray(distinct));
  const YObject answer = Call("links/create", request, true, "CreatePublicLink");
  return ReadAnswer("links/create", "CreatePublicLink", [&] {
    PublicLink link;
    link.link = answer.Get<YString>("link", kLogType);
    link.token = answer.Get<YString>("token", kLogType);
    return link;
  });
}

MetadataPtr YCloudApi::CreateDirectory(const YString& path) {
  YObject request;
  request.Set("path", YValue(path));
  return EntryOf(Call("folders/create", request, true, "CreateDirectory"), "folders/create", "CreateDirectory");
}

void YCloudApi::DeleteFile(const YString& path) {
  YObject request;
  request.Set("path", YValue(path));
  Call("delete", request, true, "DeleteFile");
}

MetadataPtr YCloudApi::DeleteFileIf(const YString& path, uint64_t ifVersion) {
  YObject request;
  request.Set("path", YValue(path));
  request.Set("if_version", YValue(static_cast<unsigned long long>(ifVersion)));
  return EntryOf(Call("delete", request, true, "DeleteFileIf"), "delete", "DeleteFileIf");
}

void YCloudApi::Undelete(const YString& path, uint64_t deleted) {
  YObject request;
  request.Set("path", YValue(path));
  request.Set("deleted", YValue(static_cast<unsigned long long>(deleted)));
  Call("undelete", request, true, "Undelete");
}

// ------------------------------------------------------------------- parts

YString YCloudApi::ComputeFingerprint(const unsigned char* data, size_t size) {
  return Qel::Crypto::YBbsHash::Fingerprint(data, size);
}

std::string YCloudApi::BuildUploadManifest(const std::vector<PartPtr>& parts) {
  YArray manifest;
  for (const PartPtr& p : parts) {
    YObject item;
    item.Set("fingerprint", YValue(p->fingerprint));
    item.Set("size", YValue(p->size));
    manifest.push_back(std::make_shared<YValue>(std::move(item)));
  }
  YObject head;
  head.Set("parts", YValue(std::move(manifest)));
  std::string line = head.Stringify();
  line += '\n';
  return line;
}

std::string YCloudApi::BuildUploadBody(const std::vector<PartPtr>& parts) {
  std::string body = BuildUploadManifest(parts);
  for (const PartPtr& p : parts) body.append(reinterpret_cast<const char*>(p->data.Get()), p->size);
  return body;
}

size_t YCloudApi::SendNeededParts(const PartList& batch, uint64_t /*reserved*/) {
  std::vector<std::string_view> bytes;
  for (const PartPtr& p : batch) {
    bytes.emplace_back(p ? reinterpret_cast<const char*>(p->data.Get()) : nullptr, p ? p->data.GetCount() : 0);
  }
  return SendParts(batch, bytes);
}

size_t YCloudApi::SendParts(const PartList& batch, const std::vector<std::string_view>& bytes,
                            const std::function<void()>& bytesFree) {
  const std::vector<YString> fingerprints = DistinctFingerprints(batch);
  if (fingerprints.empty()) {
    if (bytesFree) bytesFree();
    return 0;
  }
  RequireLogin("SendNeededParts");

  std::set<YString> missing;
  for (size_t start = 0; start < fingerprints.size(); start += kMissingBatchParts) {
    const size_t end = std::min(fingerprints.size(), start + kMissingBatchParts);
    YObject request;
    request.Set("fingerprints", TextArray({fingerprints.begin() + static_cast<long>(start),
                                           fingerprints.begin() + static_cast<long>(end)}));
    const YObject answer = Call("parts/missing", request, true, "SendNeededParts");
    ReadAnswer("parts/missing", "SendNeededParts", [&] {
      for (const Qel::JSON::YValuePtr& v : answer.Get<YArray>("missing", kLogType)) {
        if (v) missing.insert(v->AsString());
      }
      return 0;
    });
  }

  std::vector<PartPtr> to_send;
  std::vector<std::string_view> to_send_bytes;
  std::set<YString> chosen;
  size_t i = 0;
  for (const PartPtr& p : batch) {
    const std::string_view held = i < bytes.size() ? bytes[i] : std::string_view();
    ++i;
    if (!p || !missing.count(p->fingerprint) || !chosen.insert(p->fingerprint).second) continue;
    if (p->size == 0 || p->size > kMaxPartSize || held.size() != p->size) {
      QEL_RAISE(kLogType, 186,
                "Part " + p->fingerprint + " lists " + std::to_string(p->size) + " bytes and holds " +
                    std::to_string(held.size()),
                kFile, "SendNeededParts");
    }
    to_send.push_back(p);
    to_send_bytes.push_back(held);
  }
  if (to_send.empty() && bytesFree) bytesFree();

  const std::map<YString, YString> headers{{"Content-Type", "application/octet-stream"},
                                           {"Accept", "application/json"},
                                           {"User-Agent", agent_name_},
                                           {"Authorization", "Bearer " + token_}};
  const YString path = kApiPrefix + YString("parts/upload");
  for (size_t start = 0; start < to_send.size(); start += kUploadBatchParts) {
    const size_t end = std::min(to_send.size(), start + kUploadBatchParts);
    const std::vector<PartPtr> group(to_send.begin() + static_cast<long>(start),
                                     to_send.begin() + static_cast<long>(end));
    // The manifest, then each part's bytes from where they lie.
    const std::string manifest = BuildUploadManifest(group);
    std::vector<std::string_view> pieces{manifest};
    pieces.insert(pieces.end(), to_send_bytes.begin() + static_cast<long>(start),
                  to_send_bytes.begin() + static_cast<long>(end));
    const bool last = end == to_send.size();
    YCurlObj::Response answer =
        curl_->Post(path, headers, std::move(pieces), nullptr, 0, last ? bytesFree : std::function<void()>());
    if (answer.status != 200)
      Qel::Exception::Raise(AnswerError(answer.status, answer.body, curl_->MakeUrl(path), "SendNeededParts"));
    const unsigned long long received = ReadAnswer("parts/upload", "SendNeededParts", [&] {
      return Qel::JSON::ParseObject(answer.body).Get<unsigned long long>("received", kLogType);
    });
    if (received != group.size()) {
      QEL_RAISE(kLogType, 161,
                "Unexpected answer to parts/upload: " + std::to_string(received) + " parts received of " +
                    std::to_string(group.size()),
                kFile, "SendNeededParts");
    }
  }
  return to_send.size();
}

namespace {

YArray PartListJson(const PartList& parts) {
  YArray list;
  for (const PartPtr& p : parts) {
    YObject item;
    item.Set("fingerprint", YValue(p->fingerprint));
    item.Set("size", YValue(p->size));
    list.push_back(std::make_shared<YValue>(std::move(item)));
  }
  return list;
}

}  // namespace

MetadataPtr YCloudApi::CreateFile(const YString& path, const PartList& parts) {
  YObject request;
  request.Set("path", YValue(path));
  request.Set("parts", YValue(PartListJson(parts)));
  return EntryOf(Call("files/create", request, true, "CreateFile"), "files/create", "CreateFile");
}

MetadataPtr YCloudApi::CreateFileIf(const YString& path, const PartList& parts, int64_t modified,
                                    uint64_t ifVersion) {
  YObject request;
  request.Set("path", YValue(path));
  request.Set("parts", YValue(PartListJson(parts)));
  request.Set("modified", YValue(static_cast<long long>(modified)));
  request.Set("if_version", YValue(static_cast<unsigned long long>(ifVersion)));
  return EntryOf(Call("files/create", request, true, "CreateFileIf"), "files/create", "CreateFileIf");
}

YCloudApi::ChangesResult YCloudApi::GetChanges(const YString& cursor, uint32_t timeoutSeconds, uint32_t limit) {
  YObject request;
  request.Set("cursor", YValue(cursor));
  request.Set("timeout", YValue(static_cast<unsigned long long>(timeoutSeconds)));
  request.Set("limit", YValue(static_cast<unsigned long long>(limit)));
  // The service may hold the request for the whole wait: the client's own
  // limit must not cut it (0 stays "no limit").
  long total = curl_->GetTotalTimeout();
  const long needed = static_cast<long>(timeoutSeconds) + kLongPollMargin;
  if (total != 0 && total < needed) total = needed;
  const YObject answer = Call("changes", request, true, "GetChanges", total);
  return ReadAnswer("changes", "GetChanges", [&] {
    ChangesResult result;
    for (const Qel::JSON::YValuePtr& v : answer.Get<YArray>("changes", kLogType)) {
      if (!v || !v->IsObject()) QEL_RAISE(kLogType, 161, "A change is not an object", kFile, "GetChanges");
      result.changes.push_back(ReadEntry(v->AsObject()));
    }
    result.cursor = answer.Get<YString>("cursor", kLogType);
    result.more = answer.Has("more") && answer.Get<bool>("more", kLogType);
    result.reset = answer.Has("reset") && answer.Get<bool>("reset", kLogType);
    return result;
  });
}

std::vector<YCloudApi::AnsweredPart> YCloudApi::ReadPartsManifest(const std::vector<YString>& asked,
                                                                  std::string_view line, size_t bytes) {
  YArray manifest;
  try {
    manifest = Qel::JSON::ParseObject(YString(line)).Get<YArray>("parts", kLogType);
  } catch (const YError& e) {
    RaiseMalformedParts("The manifest cannot be read: " + e.GetInfo(), __LINE__);
  }
  if (manifest.size() != asked.size()) {
    RaiseMalformedParts("The manifest names " + std::to_string(manifest.size()) + " parts for " +
                            std::to_string(asked.size()) + " asked",
                        __LINE__);
  }

  std::vector<AnsweredPart> answered;
  size_t offset = 0;
  for (size_t i = 0; i < manifest.size(); ++i) {
    YString fingerprint, status;
    unsigned long long size = 0;
    try {
      if (!manifest[i] || !manifest[i]->IsObject()) throw std::invalid_argument("not an object");
      const YObject& item = manifest[i]->AsObject();
      fingerprint = item.Get<YString>("fingerprint", kLogType);
      status = item.Get<YString>("status", kLogType);
      size = item.Has("size") ? item.Get<unsigned long long>("size", kLogType) : 0;
    } catch (const std::exception&) {
      RaiseMalformedParts("Item " + std::to_string(i) + " of the manifest cannot be read", __LINE__);
    }
    if (fingerprint != asked[i]) {
      RaiseMalformedParts("Item " + std::to_string(i) + " of the manifest is " + fingerprint + ", not " + asked[i],
                          __LINE__);
    }
    if (status == "later") {
      answered.push_back({fingerprint, true, 0, 0});
      continue;
    }
    if (status == "missing") {
      QEL_RAISE(kLogType, 162, "The cloud has no part " + fingerprint, kFile, "ReadPartsAnswer");
    }
    if (status != "ok") RaiseMalformedParts("Part " + fingerprint + " has the status " + status, __LINE__);
    if (size > bytes - offset) RaiseMalformedParts("The answer ends inside part " + fingerprint, __LINE__);
    answered.push_back({fingerprint, false, offset, static_cast<size_t>(size)});
    offset += size;
  }
  if (offset != bytes) {
    RaiseMalformedParts(std::to_string(bytes - offset) + " bytes follow the last part", __LINE__);
  }
  return answered;
}

void YCloudApi::CheckPartBytes(const PartInfo& part, size_t size, const YString& computed) {
  if (computed != part.fingerprint) {
    QEL_RAISE(kLogType, 169, "The bytes received for part " + part.fingerprint + " do not match it", kFile,
              "ReadPartsAnswer");
  }
  if (part.size != size) {
    QEL_RAISE(kLogType, 169,
              "Part " + part.fingerprint + " came with " + std::to_string(size) + " bytes, not " +
                  std::to_string(part.size),
              kFile, "ReadPartsAnswer");
  }
}

namespace {

// Checks every part of `batch` whose bytes `find(fingerprint, size)` gives
// against its fingerprint and size (169 on a mismatch) and fills its data. A
// fingerprint that stands twice is hashed once. Returns how many were filled.
template <typename Find>
size_t FillCheckedParts(const PartList& batch, Find find) {
  size_t filled = 0;
  std::map<YString, YString> computed;
  for (const PartPtr& p : batch) {
    size_t size = 0;
    const unsigned char* bytes = p ? find(p->fingerprint, size) : nullptr;
    if (bytes == nullptr) continue;
    auto [it, fresh] = computed.try_emplace(p->fingerprint);
    if (fresh) it->second = YCloudApi::ComputeFingerprint(bytes, size);
    YCloudApi::CheckPartBytes(*p, size, it->second);
    p->data.Assign(bytes, size);
    ++filled;
  }
  return filled;
}

}  // namespace

std::vector<YString> YCloudApi::ReadPartsAnswer(const std::vector<YString>& asked, const std::string& body,
                                                const PartList& batch, size_t& filled) {
  const size_t line_end = body.find('\n');
  if (line_end == std::string::npos) RaiseMalformedParts("The answer has no manifest line", __LINE__);
  const auto* bytes = reinterpret_cast<const unsigned char*>(body.data() + line_end + 1);
  std::vector<YString> later;
  std::map<YString, std::pair<size_t, size_t>> sent;  // fingerprint: offset, size
  for (const AnsweredPart& a :
       ReadPartsManifest(asked, std::string_view(body).substr(0, line_end), body.size() - line_end - 1)) {
    if (a.later) later.push_back(a.fingerprint);
    else sent[a.fingerprint] = {a.offset, a.size};
  }
  filled += FillCheckedParts(batch, [&](const YString& fingerprint, size_t& size) -> const unsigned char* {
    const auto it = sent.find(fingerprint);
    if (it == sent.end()) return nullptr;
    size = it->second.second;
    return bytes + it->second.first;
  });
  return later;
}

void YCloudApi::ReceiveParts(const PartList& batch, uint64_t fileId, YPartsBuffer& into) {
  into.Clear();
  std::vector<YString> pending = DistinctFingerprints(batch);
  if (pending.empty()) return;
  RequireLogin("ReceiveParts");
  const std::map<YString, YString> headers{{"Content-Type", "application/json"},
                                           {"Accept", "application/octet-stream"},
                                           {"User-Agent", agent_name_},
                                           {"Authorization", "Bearer " + token_}};
  const YString path = kApiPrefix + YString("parts/download");
  while (!pending.empty()) {
    const size_t count = std::min(pending.size(), kDownloadBatchParts);
    const std::vector<YString> asked(pending.begin(), pending.begin() + static_cast<long>(count));
    YObject request;
    request.Set("id", YValue(static_cast<unsigned long long>(fileId)));
    request.Set("fingerprints", TextArray(asked));
    const std::string body = request.Stringify();
    const YCurlObj::Response answer = curl_->Post(path, headers, std::vector<std::string_view>{body}, &into);
    if (answer.status != 200)
      Qel::Exception::Raise(AnswerError(answer.status, into.AnswerText(), curl_->MakeUrl(path), "ReceiveParts"));
    if (into.Overflowed()) RaiseMalformedParts("The answer is larger than any parts answer can be", __LINE__);
    if (!into.ManifestEnded()) RaiseMalformedParts("The answer has no manifest line", __LINE__);

    std::vector<YString> later;
    for (const AnsweredPart& a : ReadPartsManifest(asked, into.Manifest(), into.AnswerBytes())) {
      if (a.later) later.push_back(a.fingerprint);
      else into.Record(a.fingerprint, into.AnswerStart() + a.offset, a.size);
    }
    if (later.size() == asked.size()) {
      RaiseMalformedParts("The cloud sent none of the parts asked for and asked to wait", __LINE__);
    }
    later.insert(later.end(), pending.begin() + static_cast<long>(count), pending.end());
    pending = std::move(later);
  }
}

size_t YCloudApi::GetParts(const PartList& batch, uint64_t fileId) {
  YPartsBuffer buffer;
  ReceiveParts(batch, fileId, buffer);
  return FillCheckedParts(batch, [&](const YString& fingerprint, size_t& size) { return buffer.Find(fingerprint, size); });
}

}  // namespace CloudSync
