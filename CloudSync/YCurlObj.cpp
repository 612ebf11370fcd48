#include "CloudSync/YCurlObj.h"

namespace CloudSync {

YCurlObj::YCurlObj(void* /*syncInstance*/, const Qel::YString& baseAddress, int flags)
    : base_address_(baseAddress), flags_(flags), session_(CreateHttpSession()) {
  if (!base_address_.EndsWith("/")) base_address_ += "/";
}

YCurlObj::~YCurlObj() = default;

void YCurlObj::SetTimeouts(long totalSeconds, long connectSeconds) {
  total_timeout_ = totalSeconds < 0 ? 0 : totalSeconds;
  connect_timeout_ = connectSeconds < 0 ? 0 : connectSeconds;
}

void YCurlObj::SetTrust(const Qel::YString& caFile, bool verify) {
  ca_file_ = caFile;
  verify_ = verify;
}

void YCurlObj::SetSpeedLimits(uint64_t sendBytesPerSecond, uint64_t receiveBytesPerSecond) {
  max_send_speed_ = sendBytesPerSecond;
  max_recv_speed_ = receiveBytesPerSecond;
}

void YCurlObj::CopySettingsFrom(const YCurlObj& other) {
  total_timeout_ = other.total_timeout_;
  connect_timeout_ = other.connect_timeout_;
  ca_file_ = other.ca_file_;
  verify_ = other.verify_;
  max_send_speed_ = other.max_send_speed_;
  max_recv_speed_ = other.max_recv_speed_;
}

Qel::YString YCurlObj::MakeUrl(const Qel::YString& path) const {
  size_t skip = 0;
  while (skip < path.size() && path[skip] == '/') ++skip;
  return base_address_ + path.substr(skip);
}

YCurlObj::Response YCurlObj::Post(const Qel::YString& path, const HttpHeaders& headers, std::string_view body,
                                  long timeout) {
  HttpRequest request;
  request.body = body;
  return Perform(std::move(request), path, headers, timeout);
}

YCurlObj::Response YCurlObj::Post(const Qel::YString& path, const HttpHeaders& headers,
                                  std::vector<std::string_view> pieces, IBodySink* sink, long timeout,
                                  std::function<void()> bodyTaken) {
  HttpRequest request;
  request.bodyPieces = std::move(pieces);
  request.bodyTaken = std::move(bodyTaken);
  request.sink = sink;
  return Perform(std::move(request), path, headers, timeout);
}

YCurlObj::Response YCurlObj::Get(const Qel::YString& path, const HttpHeaders& headers, long timeout) {
  HttpRequest request;
  request.post = false;
  return Perform(std::move(request), path, headers, timeout);
}

YCurlObj::Response YCurlObj::Perform(HttpRequest request, const Qel::YString& path, const HttpHeaders& headers,
                                     long timeout) {
  request.url = MakeUrl(path);
  request.baseAddress = base_address_;
  request.headers = &headers;
  request.totalTimeout = timeout > 0 ? timeout : total_timeout_;
  request.connectTimeout = connect_timeout_;
  request.caFile = ca_file_;
  request.verify = verify_;
  request.keepAlive = (flags_ & kKeepAlive) != 0;
  request.maxSendSpeed = max_send_speed_;
  request.maxRecvSpeed = max_recv_speed_;
  return session_->Perform(request);
}

}  // namespace CloudSync
