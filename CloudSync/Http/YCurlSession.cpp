// The libcurl HTTP session, built as the module libCloudSyncCurl.so and
// loaded on first use (see IHttpSession.h). One session owns one easy handle
// and reuses it, so the requests of a run share one kept-alive connection.
#include <curl/curl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>

#include "CloudSync/Http/IHttpSession.h"
#include "Qel/Exception/YError.h"
#include "Qel/File/File.h"
#include "Qel/Log/YLog.h"
#include "Qel/Util/Util.h"

namespace CloudSync {

namespace {

constexpr const char* kFile = "CloudSync/Http/YCurlSession";
constexpr unsigned int kLogType = 213;            // CSM_CLOUD
constexpr unsigned int kTransportErrorCode = 163;  // no answer from the service
constexpr long kTransferBufferBytes = 256 * 1024;  // per direction and connection

void GlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

size_t OnBody(char* data, size_t size, size_t count, void* user) {
  static_cast<HttpResponse*>(user)->body.append(data, size * count);
  return size * count;
}

size_t OnBodyToSink(char* data, size_t size, size_t count, void* user) {
  static_cast<IBodySink*>(user)->Append(data, size * count);
  return size * count;
}

// A request body made of pieces, read out in order.
struct PieceReader {
  const std::vector<std::string_view>& pieces;
  const std::function<void()>& taken;  // called once the last piece is taken
  size_t index = 0;
  size_t offset = 0;
  bool told = false;
};

size_t ReadPieces(char* into, size_t size, size_t count, void* user) {
  auto* reader = static_cast<PieceReader*>(user);
  const size_t room = size * count;
  size_t done = 0;
  while (done < room && reader->index < reader->pieces.size()) {
    const std::string_view piece = reader->pieces[reader->index];
    const size_t n = std::min(room - done, piece.size() - reader->offset);
    std::memcpy(into + done, piece.data() + reader->offset, n);
    done += n;
    reader->offset += n;
    if (reader->offset == piece.size()) {
      ++reader->index;
      reader->offset = 0;
    }
  }
  if (reader->index == reader->pieces.size() && !reader->told) {
    reader->told = true;
    if (reader->taken) reader->taken();
  }
  return done;
}

size_t OnHeader(char* data, size_t size, size_t count, void* user) {
  auto* response = static_cast<HttpResponse*>(user);
  const std::string_view line(data, size * count);
  if (line.starts_with("HTTP/")) {
    response->headers.clear();  // a new answer (after "100 Continue" or a retry)
  } else if (size_t colon = line.find(':'); colon != std::string_view::npos) {
    Qel::YString name = Qel::YString(line.substr(0, colon)).ToLowerAscii();
    response->headers[Qel::Util::Trim(name)] = Qel::Util::Trim(Qel::YString(line.substr(colon + 1)));
  }
  return size * count;
}

// Adds the certificates of the PEM file named by `user` (a Qel::YString) to
// the trust store libcurl already filled with the system's CAs.
CURLcode AddCaFile(CURL*, void* sslContext, void* user) {
  const auto* path = static_cast<const Qel::YString*>(user);
  X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
  BIO* bio = BIO_new_file(path->c_str(), "r");
  if (bio == nullptr) {
    ERR_clear_error();
    return CURLE_SSL_CACERT_BADFILE;
  }
  int added = 0;
  while (X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr)) {
    if (X509_STORE_add_cert(store, cert) == 1) ++added;
    X509_free(cert);
  }
  ERR_clear_error();  // the end of the file reads as an error
  BIO_free(bio);
  return added > 0 ? CURLE_OK : CURLE_SSL_CACERT_BADFILE;
}

bool IsCertificateFailure(CURLcode rc) {
  return rc == CURLE_PEER_FAILED_VERIFICATION || rc == CURLE_SSL_ISSUER_ERROR || rc == CURLE_SSL_PINNEDPUBKEYNOTMATCH;
}

}  // namespace

class YCurlSession : public IHttpSession {
 public:
  YCurlSession() {
    GlobalInit();
    handle_ = curl_easy_init();
    if (handle_ == nullptr) QEL_RAISE(kLogType, kTransportErrorCode, "Could not set up libcurl", kFile, "YCurlSession");
  }
  ~YCurlSession() override { curl_easy_cleanup(handle_); }
  HttpResponse Perform(const HttpRequest& request) override;

 private:
  CURL* handle_ = nullptr;
};

HttpResponse YCurlSession::Perform(const HttpRequest& request) {
  CURL* h = handle_;
  const bool post = request.post;
  const Qel::YString& url = request.url;
  const Qel::YString& base_address_ = request.baseAddress;
  const Qel::YString& ca_file_ = request.caFile;
  const bool verify_ = request.verify;
  const std::string_view body = request.body;
  HttpResponse response;
  char error_text[CURL_ERROR_SIZE] = {0};

  curl_slist* header_list = nullptr;
  for (const auto& [name, value] : *request.headers) header_list = curl_slist_append(header_list, (name + ": " + value).c_str());
  header_list = curl_slist_append(header_list, "Expect:");  // no 100-continue round trip

  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, error_text);
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, header_list);
  if (request.sink != nullptr) {
    request.sink->Begin();
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &OnBodyToSink);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, request.sink);
  } else {
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &OnBody);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &response);
  }
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &OnHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &response);
  curl_easy_setopt(h, CURLOPT_TIMEOUT, request.totalTimeout);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, request.connectTimeout);
  curl_easy_setopt(h, CURLOPT_MAX_SEND_SPEED_LARGE, static_cast<curl_off_t>(request.maxSendSpeed));
  curl_easy_setopt(h, CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(request.maxRecvSpeed));
  const bool keep_alive = request.keepAlive;
  curl_easy_setopt(h, CURLOPT_TCP_KEEPALIVE, keep_alive ? 1L : 0L);
  curl_easy_setopt(h, CURLOPT_FORBID_REUSE, keep_alive ? 0L : 1L);

  curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, verify_ ? 1L : 0L);
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, verify_ ? 2L : 0L);
  const bool extra_ca = verify_ && !ca_file_.empty() && Qel::File::DoesFileExist(ca_file_);
  if (extra_ca) {
    curl_easy_setopt(h, CURLOPT_SSL_CTX_FUNCTION, &AddCaFile);
    curl_easy_setopt(h, CURLOPT_SSL_CTX_DATA, &request.caFile);
    curl_easy_setopt(h, CURLOPT_CA_CACHE_TIMEOUT, 0L);  // never share a store that holds the extra CA
  } else {
    curl_easy_setopt(h, CURLOPT_SSL_CTX_FUNCTION, nullptr);
    curl_easy_setopt(h, CURLOPT_SSL_CTX_DATA, nullptr);
  }

  PieceReader pieces{request.bodyPieces, request.bodyTaken};
  size_t body_size = body.size();
  if (post && !request.bodyPieces.empty()) {
    body_size = 0;
    for (std::string_view piece : request.bodyPieces) body_size += piece.size();
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, nullptr);
    curl_easy_setopt(h, CURLOPT_READFUNCTION, &ReadPieces);
    curl_easy_setopt(h, CURLOPT_READDATA, &pieces);
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_size));
  } else if (post) {
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  } else {
    curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
  }

  // Large buffers: a part of 1 MiB moves in four system calls, not in dozens.
  curl_easy_setopt(h, CURLOPT_BUFFERSIZE, kTransferBufferBytes);
  curl_easy_setopt(h, CURLOPT_UPLOAD_BUFFERSIZE, kTransferBufferBytes);

  const auto started = std::chrono::steady_clock::now();
  const CURLcode rc = curl_easy_perform(h);
  curl_easy_setopt(h, CURLOPT_READFUNCTION, nullptr);
  curl_easy_setopt(h, CURLOPT_READDATA, nullptr);
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, nullptr);
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, nullptr);
  curl_slist_free_all(header_list);

  Qel::Log::YLog& log = Qel::Log::GetGlobalLogger();
  const long ms = static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count());

  if (rc != CURLE_OK) {
    const Qel::YString reason = error_text[0] != '\0' ? Qel::YString(error_text) : Qel::YString(curl_easy_strerror(rc));
    Qel::YString info;
    if (IsCertificateFailure(rc)) {
      Qel::YString where = ca_file_;
      if (where.empty()) {
        where = Qel::File::GetPathMap(9).empty() ? Qel::YString("ca.pem in the data folder")
                                                 : Qel::File::GetPathName(9, "ca.pem");
      }
      info = "Could not reach " + base_address_ + ": the service's certificate is not trusted (" + reason +
             "); save the certificate of its CA as " + where + ", or set csmSslVerify to 0";
    } else if (rc == CURLE_SSL_CACERT_BADFILE) {
      info = "Could not reach " + base_address_ + ": the CA certificate file " + ca_file_ +
             " holds no readable certificate (" + reason + ")";
    } else if (rc == CURLE_COULDNT_CONNECT || rc == CURLE_COULDNT_RESOLVE_HOST) {
      info = "Could not reach " + base_address_ + ": " + curl_easy_strerror(rc);
    } else {
      info = "Could not reach " + base_address_ + ": " + reason;
    }
    if (log.IsEnabled(kLogType)) {
      log.Write(kLogType, (post ? "POST " : "GET ") + url + " failed after " + std::to_string(ms) + " ms: " + reason);
    }
    QEL_RAISE(kLogType, kTransportErrorCode, info, kFile, post ? "Post" : "Get");
  }

  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &response.status);
  if (log.IsEnabled(kLogType)) {
    log.Write(kLogType, (post ? "POST " : "GET ") + url + " " + std::to_string(response.status) + " " +
                            std::to_string(body_size) + "/" + std::to_string(response.body.size()) + " bytes " +
                            std::to_string(ms) + " ms");
  }
  return response;
}

}  // namespace CloudSync

extern "C" CloudSync::IHttpSession* zarnu_create_http_session() { return new CloudSync::YCurlSession(); }
