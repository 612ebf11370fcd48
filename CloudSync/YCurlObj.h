// CloudSync::YCurlObj: the HTTP layer of the cloud client, over libcurl.
//
// One object owns one HTTP session (one libcurl easy handle) and reuses it
// for every request, so requests of a run share one kept-alive connection.
// libcurl is loaded with its module on the first construction, never at
// program start.
//
// TLS: the system's CA store is always trusted; SetTrust adds the
// certificates of one more PEM file (a private service's CA or its
// self-signed certificate) or switches verification off.
//
// Failures: a request that gets no HTTP answer (no route, refused
// connection, time-out, TLS failure) raises code 163 under log type 213
// (CSM_CLOUD) with info "Could not reach <address>: <libcurl's reason>";
// certificate failures say that the service's certificate is not trusted and
// how to trust it. Any HTTP answer, whatever its status, is returned.
//
// Thread-safety: none; one thread uses an object at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "CloudSync/Http/IHttpSession.h"
#include "Qel/YString.h"

namespace CloudSync {

class YCurlObj {
 public:
  // Flag bits of the constructor.
  static constexpr int kKeepAlive = 32;  // keep the connection open between requests (TCP keep-alive probes on)

  // Code of a request that got no answer ("General failure syncing from cloud").
  static constexpr unsigned int kTransportErrorCode = 163;
  static constexpr unsigned int kLogType = 213;  // CSM_CLOUD

  using Response = HttpResponse;

  // `syncInstance` is reserved (may be null). `baseAddress` is the service's
  // address ("https://host:port/"); request paths are relative to it.
  YCurlObj(void* syncInstance, const Qel::YString& baseAddress, int flags = kKeepAlive);
  ~YCurlObj();
  YCurlObj(const YCurlObj&) = delete;
  YCurlObj& operator=(const YCurlObj&) = delete;

  // Seconds for a whole request and for establishing a connection; 0 means no
  // limit. Both default to 300.
  void SetTimeouts(long totalSeconds, long connectSeconds);
  // `caFile`: a PEM file whose certificates are trusted besides the system's
  // (empty or missing: none). `verify` false switches certificate and host
  // name checks off.
  void SetTrust(const Qel::YString& caFile, bool verify);
  // Bytes per second sent and received by each request; 0 means no limit.
  void SetSpeedLimits(uint64_t sendBytesPerSecond, uint64_t receiveBytesPerSecond);

  // Sends `body` (binary-safe) to `path` (relative to the base address; a
  // leading "/" is ignored). `timeout` in seconds overrides the total time-out
  // for this request when non-zero.
  Response Post(const Qel::YString& path, const std::map<Qel::YString, Qel::YString>& headers, std::string_view body,
                long timeout = 0);
  // Sends the body `pieces` one after the other, from where they lie. With
  // `sink`, the answer's body goes there instead of Response::body.
  // `bodyTaken` (optional) is called once the pieces are no longer read
  // (HttpRequest::bodyTaken).
  Response Post(const Qel::YString& path, const std::map<Qel::YString, Qel::YString>& headers,
                std::vector<std::string_view> pieces, IBodySink* sink = nullptr, long timeout = 0,
                std::function<void()> bodyTaken = {});
  Response Get(const Qel::YString& path, const std::map<Qel::YString, Qel::YString>& headers, long timeout = 0);

  // Takes over `other`'s time-outs, trust and speed limits.
  void CopySettingsFrom(const YCurlObj& other);

  // The base address joined with `path`.
  Qel::YString MakeUrl(const Qel::YString& path) const;
  const Qel::YString& GetBaseAddress() const { return base_address_; }
  long GetTotalTimeout() const { return total_timeout_; }

 private:
  Response Perform(HttpRequest request, const Qel::YString& path,
                   const std::map<Qel::YString, Qel::YString>& headers, long timeout);

  Qel::YString base_address_;
  int flags_;
  std::unique_ptr<IHttpSession> session_;
  long total_timeout_ = 300;
  long connect_timeout_ = 300;
  Qel::YString ca_file_;
  bool verify_ = true;
  uint64_t max_send_speed_ = 0;
  uint64_t max_recv_speed_ = 0;
};

}  // namespace CloudSync
