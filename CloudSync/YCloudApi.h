// CloudSync::YCloudApi: the client of the cloud service's JSON API.
//
// One client talks to one service address over one reused connection
// (keep-alive). Every call either succeeds or raises Qel::Exception::YError:
// the service's own error code with its message as info (191 refused login,
// 162 missing parts, 174 missing path, ...), or, when the service cannot be
// reached, a transport error whose info names the address and the reason.
// Authenticated calls need a successful Login first (else code 177).
//
// TLS trust: the system's CA store plus the CA file given by SetTrust (the
// data folder's "ca.pem" when it exists); verification can be switched off.
// Plain http:// addresses work as given.
//
// Thread-safety: none; one thread uses a client at a time.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "CloudSync/PartInfo.h"
#include "Qel/YString.h"

namespace CloudSync {

class YCurlObj;
class YConfigDb;

class YCloudApi {
 public:
  struct LoginResult {
    Qel::YString accountId;
    Qel::YString displayName;
    std::vector<Qel::YString> usernames;  // the first is the account logged in
    Qel::YString reserved;
    Qel::YString token;
  };

  // A listing request. Members in order; the defaults are the service's.
  struct ListParam {
    Qel::YString path;            // folder path; wild cards * and ? in components
    Qel::YString filter;          // regular expression on entry names (path is then a plain folder)
    uint64_t reserved = 0;
    bool recurse = false;
    uint32_t partLimit = 0x6400000;  // parts listed per file (0 = all) when parts are asked for
    uint32_t pageSize = 1000;
    bool includeExcludes = false;
    bool reserved2 = false;
    bool includeParts = false;
    bool includeDeleted = false;
    bool flag5 = false;
    bool flag6 = false;
    Qel::YString cursor;          // "" for the first page, else ListResult::cursor
  };

  struct ListResult {
    std::vector<MetadataPtr> entries;
    bool more = false;            // another page follows: set ListParam::cursor = cursor and call again
    Qel::YString cursor;
  };

  struct PublicLink {
    Qel::YString link;   // full address that serves the linked paths
    Qel::YString token;
  };

  // `agentName` goes into the User-Agent header; `address` is the service's
  // base address ("https://host:port/"); "api/v1/..." is appended.
  YCloudApi(const Qel::YString& agentName, const Qel::YString& address);
  ~YCloudApi();
  YCloudApi(const YCloudApi&) = delete;
  YCloudApi& operator=(const YCloudApi&) = delete;

  // Reads "csmCurlTimeout", "csmCurlConnectTimeout" (seconds) and
  // "csmSslVerify" from `db`, and trusts "ca.pem" beside it when present.
  void ApplyConfig(YConfigDb& db);
  void SetTimeouts(long totalSeconds, long connectSeconds);
  void SetTrust(const Qel::YString& caFile, bool verify);

  LoginResult Login(const Qel::YString& user, const Qel::YString& password);
  LoginResult Login(const Qel::YString& token);

  ListResult ListPath(const ListParam& param);

  PublicLink CreatePublicLink(const std::vector<MetadataPtr>& entries);
  PublicLink CreatePublicLink(const std::list<Qel::YString>& paths);

  MetadataPtr CreateDirectory(const Qel::YString& path);
  void DeleteFile(const Qel::YString& path);
  // `deleted`: the entry's deleted time, or all bits set for the latest.
  void Undelete(const Qel::YString& path, uint64_t deleted);

  // Asks which parts of `batch` the cloud lacks for this account and uploads
  // exactly those in one request. `reserved` is 0. Returns how many parts were
  // sent.
  size_t SendNeededParts(const PartList& batch, uint64_t reserved);
  // Creates (or replaces) the file at `path` from the ordered part list (only
  // fingerprints and sizes are read). Raises 162 when the cloud lacks a part.
  MetadataPtr CreateFile(const Qel::YString& path, const PartList& parts);
  // Fetches the bytes of `batch` (parts of the file version `fileId`) in one
  // request, filling each obtained part's data after checking it against its
  // fingerprint (a mismatch raises 169). Parts the service answers "later"
  // are asked for again. Returns how many parts were obtained.
  size_t GetParts(const PartList& batch, uint64_t fileId);

  const Qel::YString& GetToken() const { return token_; }
  const Qel::YString& GetCloudAddress() const { return address_; }
  const Qel::YString& GetAgentName() const { return agent_name_; }

 private:
  Qel::YString agent_name_;
  Qel::YString address_;
  Qel::YString token_;
  std::unique_ptr<YCurlObj> curl_;
};

}  // namespace CloudSync
