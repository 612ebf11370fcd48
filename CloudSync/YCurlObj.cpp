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

Qel::YString YCurlObj::MakeUrl(const Qel::YString& path) const {
  size_t skip = 0;
  while (skip < path.size() && path[skip] == '/') ++skip;
  return base_address_ + path.substr(skip);
}

YCurlObj::Response YCurlObj::Post(const Qel::YString& path, const HttpHeaders& headers, std::string_view body,
                                  long timeout) {
  return Perform(true, path, headers, body, timeout);
}

YCurlObj::Response YCurlObj::Get(const Qel::YString& path, const HttpHeaders& headers, long timeout) {
  return Perform(false, path, headers, {}, timeout);
}

YCurlObj::Response YCurlObj::Perform(bool post, const Qel::YString& path, const HttpHeaders& headers,
                                     std::string_view body, long timeout) {
  HttpRequest request;
  request.post = post;
  request.url = MakeUrl(path);
  request.baseAddress = base_address_;
  request.headers = &headers;
  request.body = body;
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
