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
// Errors that come from this client itself: 177 for a call before Login,
// 163 (from YCurlObj) when no answer arrives, 161 for an answer that is not
// the JSON the call expects, 168 for a malformed binary parts answer, 169 for
// a downloaded part whose bytes do not match its fingerprint or size, 186 for
// a part handed to SendNeededParts whose bytes do not match its size. All are
// raised under log type 213 (CSM_CLOUD). With log type 220 (CSM_JSON)
// enabled, the JSON of every request and answer except logins is logged.
//
// Thread-safety: none; one thread uses a client at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "CloudSync/PartInfo.h"
#include "Qel/Exception/YError.h"
#include "Qel/YString.h"

namespace Qel::JSON {
class YObject;
}

namespace CloudSync {

class YCurlObj;
class YConfigDb;
class YPartsBuffer;

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

  // One page of the account's change feed.
  struct ChangesResult {
    std::vector<MetadataPtr> changes;  // current state of every path changed after the cursor, in change order
    Qel::YString cursor;               // pass to the next call
    bool more = false;                 // another page follows at once
    bool reset = false;                // the pages from here on are the whole tree: replace what you hold
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
  // Bytes per second each request may send and receive; 0 means no limit.
  void SetBandwidthLimits(uint64_t upBytesPerSecond, uint64_t downBytesPerSecond);

  LoginResult Login(const Qel::YString& user, const Qel::YString& password);
  LoginResult Login(const Qel::YString& token);
  // A second connection to the same service with the same settings and the
  // same login (no request is made), for transfers that use several at once.
  std::unique_ptr<YCloudApi> Clone() const;

  // One page of a listing. For a plain path naming a folder, the folder
  // itself is the first entry of every page (callers that walk a tree rely
  // on it).
  ListResult ListPath(const ListParam& param);

  // One link for all the paths (an entry given twice is linked once).
  PublicLink CreatePublicLink(const std::vector<MetadataPtr>& entries);
  PublicLink CreatePublicLink(const std::list<Qel::YString>& paths);

  MetadataPtr CreateDirectory(const Qel::YString& path);
  void DeleteFile(const Qel::YString& path);
  // Deletes the file (or folder) at `path` only while its current version
  // is `ifVersion` (a file version's id, or the folder's id). Returns the
  // deleted entry. Raises 202 when the cloud holds another version (the
  // error's info names the path), 174 when nothing live is there.
  MetadataPtr DeleteFileIf(const Qel::YString& path, uint64_t ifVersion);
  // `deleted`: the entry's deleted time, or all bits set for the latest.
  void Undelete(const Qel::YString& path, uint64_t deleted);

  // Asks which parts of `batch` the cloud lacks for this account and uploads
  // exactly those in one request (a batch of more than five lacking parts
  // goes in requests of five). A part named twice is sent once. Every part
  // sent must hold its bytes (`data` of `size` bytes; else 186). `reserved`
  // is 0. Returns how many parts were sent.
  size_t SendNeededParts(const PartList& batch, uint64_t reserved);
  // SendNeededParts for parts whose bytes lie elsewhere (their `data` is not
  // read): bytes[i] holds the bytes of the i-th part of `batch`. They are
  // sent from there, never copied into one body. `bytesFree` (optional) is
  // called once, on this thread, as soon as `bytes` are no longer read: when
  // the last upload body has been taken by the connection (the cloud's
  // answer may still be on its way), or at once when nothing is lacking. It
  // is not called when the call raises before that point. Must not throw.
  size_t SendParts(const PartList& batch, const std::vector<std::string_view>& bytes,
                   const std::function<void()>& bytesFree = {});
  // Creates (or replaces) the file at `path` from the ordered part list (only
  // fingerprints and sizes are read). Raises 162 when the cloud lacks a part.
  MetadataPtr CreateFile(const Qel::YString& path, const PartList& parts);
  // CreateFile with the file's modification time (seconds since the epoch),
  // done only while the live file at `path` is the version `ifVersion`, or,
  // with `ifVersion` 0, while no live file is there. Raises 202 otherwise
  // and changes nothing.
  MetadataPtr CreateFileIf(const Qel::YString& path, const PartList& parts, int64_t modified, uint64_t ifVersion);

  // The changes after `cursor` ("" for the whole tree, answered with reset
  // set). With `timeoutSeconds` > 0 and nothing changed, the service holds
  // the request until a change or the time-out (then no changes and the same
  // cursor); the request's own time limit is raised to cover the wait. At
  // most `limit` entries per page. A deleted path comes with `deleted` != 0;
  // a path gone for good has id 0. Raises 55 for a cursor the service did
  // not issue.
  ChangesResult GetChanges(const Qel::YString& cursor, uint32_t timeoutSeconds, uint32_t limit = 1000);
  // Fetches the bytes of `batch` (parts of the file version `fileId`) in one
  // request, filling each obtained part's data after checking it against its
  // fingerprint (a mismatch raises 169). Parts the service answers "later"
  // are asked for again. A part the service reports missing raises 162 naming
  // its fingerprint. Parts sharing a fingerprint are fetched once and all
  // filled. Returns how many parts of `batch` were filled.
  size_t GetParts(const PartList& batch, uint64_t fileId);
  // GetParts without the check: the bytes of `batch` land in `into` (cleared
  // first, its memory kept), unverified. The caller checks every part with
  // CheckPartBytes before it uses it. Raises like GetParts otherwise.
  void ReceiveParts(const PartList& batch, uint64_t fileId, YPartsBuffer& into);
  // Raises 169 unless `computed` (the fingerprint of `size` received bytes)
  // is the part's fingerprint and `size` its size.
  static void CheckPartBytes(const PartInfo& part, size_t size, const Qel::YString& computed);

  // ---- Wire format (no network; used by the calls above and by tests) ----

  // Lower-case hex MD5 of the bytes followed by their lower-case hex SHA-1.
  static Qel::YString ComputeFingerprint(const unsigned char* data, size_t size);
  // The error an answer other than HTTP 200 stands for: the service's
  // {"error":{"code":N,"message":M}} gives code N with info M (no info when
  // M only repeats the code's registered description); any other
  // answer gives 161 naming the HTTP status and `url`. `function` labels it.
  static Qel::Exception::YError AnswerError(long httpStatus, const std::string& body, const Qel::YString& url,
                                            const char* function);
  // One entry object of a listing or an answer; raises 161 when a required
  // field (id, path, size) is missing.
  static MetadataPtr ReadEntry(const Qel::JSON::YObject& entry);
  // The first line of a parts upload: the manifest and its line feed.
  static std::string BuildUploadManifest(const std::vector<PartPtr>& parts);
  // The body of a parts upload: the one-line manifest, a line feed, then the
  // bytes of every part in order.
  static std::string BuildUploadBody(const std::vector<PartPtr>& parts);
  // One element of a parts answer's manifest: a part that follows (at
  // `offset` in the bytes after the manifest line, `size` bytes) or one to ask
  // for again later.
  struct AnsweredPart {
    Qel::YString fingerprint;
    bool later = false;
    size_t offset = 0;
    size_t size = 0;
  };
  // Reads the manifest line of a parts answer to `asked`, after which `bytes`
  // bytes follow. Raises 168 for a malformed manifest or bytes that do not
  // add up, 162 for a part answered "missing".
  static std::vector<AnsweredPart> ReadPartsManifest(const std::vector<Qel::YString>& asked, std::string_view line,
                                                     size_t bytes);
  // Reads the answer to a parts download of `asked` (fingerprints in request
  // order): checks each "ok" part's bytes against its fingerprint and the
  // size of the parts of `batch` that carry it (169 on a mismatch), fills
  // those parts' data and counts them in `filled`. Returns the fingerprints
  // answered "later", in order. Raises 168 for a malformed answer and 162 for
  // a part answered "missing".
  static std::vector<Qel::YString> ReadPartsAnswer(const std::vector<Qel::YString>& asked, const std::string& body,
                                                   const PartList& batch, size_t& filled);

  const Qel::YString& GetToken() const { return token_; }
  const Qel::YString& GetCloudAddress() const { return address_; }
  const Qel::YString& GetAgentName() const { return agent_name_; }

 private:
  // `timeout`: seconds for this request when non-zero (else the client's).
  Qel::JSON::YObject Call(const char* endpoint, const Qel::JSON::YObject& request, bool authenticated,
                          const char* function, long timeout = 0);
  void RequireLogin(const char* function) const;
  LoginResult LoginWith(const Qel::JSON::YObject& request, const char* function);

  Qel::YString agent_name_;
  Qel::YString address_;
  Qel::YString token_;
  std::unique_ptr<YCurlObj> curl_;
};

}  // namespace CloudSync
