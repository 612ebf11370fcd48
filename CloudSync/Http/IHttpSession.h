// CloudSync::IHttpSession: one HTTP connection that performs requests.
//
// The libcurl implementation lives in its own module, libCloudSyncCurl.so,
// which CreateHttpSession loads on first use: programs that never talk to a
// service (zarnucmd -version, the Config verbs) never load libcurl and the
// TLS stack behind it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Qel/YString.h"

namespace CloudSync {

using HttpHeaders = std::map<Qel::YString, Qel::YString>;

struct HttpResponse {
  long status = 0;      // HTTP status of the final answer
  std::string body;     // bytes as received
  HttpHeaders headers;  // names in lower case
};

// Takes an answer's body as it arrives, in place of HttpResponse::body, so
// that large answers land straight where their reader wants them.
class IBodySink {
 public:
  virtual ~IBodySink() = default;
  // Called once before the first byte of each request's answer.
  virtual void Begin() = 0;
  virtual void Append(const char* data, size_t size) = 0;
};

struct HttpRequest {
  bool post = true;
  Qel::YString url;
  Qel::YString baseAddress;  // named in error texts
  const HttpHeaders* headers = nullptr;
  std::string_view body;
  // When not empty: the body is these pieces one after the other (sent from
  // where they lie, never joined), and `body` is ignored.
  std::vector<std::string_view> bodyPieces;
  // When set: called once, on the performing thread, as soon as libcurl has
  // taken the last byte of `bodyPieces`. From then on the pieces' memory is
  // no longer read, even while the answer is still awaited. Not called when
  // the request fails before the whole body was taken. Must not throw.
  std::function<void()> bodyTaken;
  IBodySink* sink = nullptr;  // when set, the answer's body goes here, not to HttpResponse::body
  long totalTimeout = 300;   // seconds, 0 = no limit
  long connectTimeout = 300;
  Qel::YString caFile;       // extra PEM trust besides the system's; empty for none
  bool verify = true;
  bool keepAlive = true;
  uint64_t maxSendSpeed = 0;  // bytes per second, 0 = unlimited
  uint64_t maxRecvSpeed = 0;
};

class IHttpSession {
 public:
  virtual ~IHttpSession() = default;
  // Returns any HTTP answer; raises YError when no answer arrives.
  virtual HttpResponse Perform(const HttpRequest& request) = 0;
};

// A new session from the libcurl module beside libCloudSync.so. Raises code
// 163 naming the module when it cannot be loaded.
std::unique_ptr<IHttpSession> CreateHttpSession();

}  // namespace CloudSync

// The module's entry point: a new session, owned by the caller.
extern "C" CloudSync::IHttpSession* zarnu_create_http_session();
